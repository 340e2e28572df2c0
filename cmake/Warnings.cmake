# Warning sets. Every target links kestrix_warnings; the standard-C++ layers (engine and
# simulators) also link kestrix_strict_warnings, because a silent byte truncation there is a
# real fault on the wire.
add_library(kestrix_warnings INTERFACE)
target_compile_options(kestrix_warnings INTERFACE -Wall -Wextra -Wpedantic)
if(KESTRIX_WERROR)
  target_compile_options(kestrix_warnings INTERFACE -Werror)
endif()

add_library(kestrix_strict_warnings INTERFACE)
target_compile_options(kestrix_strict_warnings INTERFACE -Wconversion -Wsign-conversion -Wshadow)
target_link_libraries(kestrix_strict_warnings INTERFACE kestrix_warnings)
