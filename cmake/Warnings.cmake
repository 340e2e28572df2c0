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

if(KESTRIX_SANITIZE)
  add_compile_options(-fsanitize=address,undefined -fno-omit-frame-pointer -fno-sanitize-recover=undefined)
  add_link_options(-fsanitize=address,undefined)
endif()

# Hardening of what the package ships, as Debian builds its own: fortified libc calls, a stack
# protector, and relocations resolved and made read-only at start (bind now). Not with the
# sanitizers, which bring their own checks and dislike the fortified calls, nor for Windows (PE
# files have no such relocations; MinGW has no fortified C library).
option(KESTRIX_HARDEN "Build with Debian's hardening flags (fortify, stack protector, bind now)" ON)
if(KESTRIX_HARDEN AND NOT KESTRIX_SANITIZE AND NOT WIN32)
  add_compile_options(-fstack-protector-strong -fstack-clash-protection -Wformat
                      -Werror=format-security
                      $<$<NOT:$<CONFIG:Debug>>:-U_FORTIFY_SOURCE> $<$<NOT:$<CONFIG:Debug>>:-D_FORTIFY_SOURCE=2>)
  add_link_options(-Wl,-z,relro -Wl,-z,now)
endif()
