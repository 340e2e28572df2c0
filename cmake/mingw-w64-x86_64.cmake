# Cross-compiling for 64-bit Windows with MinGW-w64 (Debian: g++-mingw-w64-x86-64-posix,
# gcc-mingw-w64-x86-64-posix, mingw-w64-tools; `scripts/bootstrap windows` installs them).
#
#   cmake --preset windows      (or: cmake -DCMAKE_TOOLCHAIN_FILE=cmake/mingw-w64-x86_64.cmake)
#
# The "posix" flavour of the compiler: its C++ runtime has std::thread and std::mutex, which the
# engine's virtual time and the SQLite store use. Programs are linked statically, so a program
# needs no DLL beside it, on a kiosk or under Wine.
set(CMAKE_SYSTEM_NAME Windows)
set(CMAKE_SYSTEM_PROCESSOR x86_64)

set(KESTRIX_MINGW_TRIPLE x86_64-w64-mingw32)
find_program(CMAKE_C_COMPILER NAMES ${KESTRIX_MINGW_TRIPLE}-gcc-posix ${KESTRIX_MINGW_TRIPLE}-gcc REQUIRED)
find_program(CMAKE_CXX_COMPILER NAMES ${KESTRIX_MINGW_TRIPLE}-g++-posix ${KESTRIX_MINGW_TRIPLE}-g++ REQUIRED)
find_program(CMAKE_RC_COMPILER NAMES ${KESTRIX_MINGW_TRIPLE}-windres REQUIRED)
# The IDL compiler, for the type library of the COM test component.
find_program(KESTRIX_WIDL NAMES ${KESTRIX_MINGW_TRIPLE}-widl widl)

# Libraries and headers for Windows come from the MinGW tree only, never from the build machine;
# programs (Wine, code generators) from the build machine.
set(CMAKE_FIND_ROOT_PATH /usr/${KESTRIX_MINGW_TRIPLE})
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE ONLY)

# Header-only libraries are the same for every target: Debian keeps the CMake packages of
# architecture-independent libraries (CLI11, nlohmann-json) in /usr/share/cmake, and those come
# from the build machine.
file(GLOB KESTRIX_SHARED_PACKAGES LIST_DIRECTORIES true /usr/share/cmake/*)
foreach(dir IN LISTS KESTRIX_SHARED_PACKAGES)
  get_filename_component(name ${dir} NAME)
  if(NOT DEFINED ${name}_DIR AND (EXISTS ${dir}/${name}Config.cmake OR EXISTS ${dir}/${name}-config.cmake))
    set(${name}_DIR ${dir})
  endif()
endforeach()

set(CMAKE_EXE_LINKER_FLAGS_INIT "-static")
set(CMAKE_SHARED_LINKER_FLAGS_INIT "-static")
set(CMAKE_MODULE_LINKER_FLAGS_INIT "-static")
