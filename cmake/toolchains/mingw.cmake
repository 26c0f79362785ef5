# Included by the toolchains beside it, which say which `mingw` it is, as i686.
set(CMAKE_SYSTEM_NAME Windows)
set(CMAKE_C_COMPILER ${mingw}-w64-mingw32-gcc-posix)
set(CMAKE_CXX_COMPILER ${mingw}-w64-mingw32-g++-posix)
set(CMAKE_RC_COMPILER ${mingw}-w64-mingw32-windres)
set(CMAKE_FIND_ROOT_PATH /usr/${mingw}-w64-mingw32)
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
# Packages: there, and where CMAKE_PREFIX_PATH says.
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE BOTH)
