# 32-bit Windows, with Debian's g++-mingw-w64-i686-posix.
set(mingw i686)
set(CMAKE_SYSTEM_PROCESSOR x86)
include(${CMAKE_CURRENT_LIST_DIR}/mingw.cmake)
