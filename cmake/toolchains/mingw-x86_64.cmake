# 64-bit Windows, with Debian's g++-mingw-w64-x86-64-posix.
set(mingw x86_64)
set(CMAKE_SYSTEM_PROCESSOR AMD64)
include(${CMAKE_CURRENT_LIST_DIR}/mingw.cmake)
