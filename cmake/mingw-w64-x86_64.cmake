# Cross-building for 64-bit Windows with MinGW-w64 (Debian's mingw-w64
# package):
#
#   cmake -S . -B build-windows -DCMAKE_TOOLCHAIN_FILE=cmake/mingw-w64-x86_64.cmake
#
# The posix flavour of the compilers is used, since the library's threads
# are std::thread. The MinGW runtime (libgcc, libstdc++, winpthread) is
# linked statically into every DLL and program, so that they need nothing
# beyond the DLLs Windows itself ships. When Wine is installed, CTest runs
# the test programs through it.
set(CMAKE_SYSTEM_NAME Windows)
set(CMAKE_SYSTEM_PROCESSOR x86_64)

set(TALVERN_MINGW_TRIPLE x86_64-w64-mingw32)
set(CMAKE_C_COMPILER ${TALVERN_MINGW_TRIPLE}-gcc-posix)
set(CMAKE_CXX_COMPILER ${TALVERN_MINGW_TRIPLE}-g++-posix)
set(CMAKE_RC_COMPILER ${TALVERN_MINGW_TRIPLE}-windres)

set(CMAKE_FIND_ROOT_PATH /usr/${TALVERN_MINGW_TRIPLE})
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE ONLY)

set(CMAKE_EXE_LINKER_FLAGS_INIT "-static")
set(CMAKE_SHARED_LINKER_FLAGS_INIT "-static")
set(CMAKE_MODULE_LINKER_FLAGS_INIT "-static")

find_program(TALVERN_WINE NAMES wine64 wine PATHS /usr/lib/wine NO_CMAKE_FIND_ROOT_PATH)
if(TALVERN_WINE)
  set(CMAKE_CROSSCOMPILING_EMULATOR ${TALVERN_WINE})
endif()
