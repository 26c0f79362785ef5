# What every target of this project is compiled with.
add_library(voxdevice_options INTERFACE)
target_compile_features(voxdevice_options INTERFACE cxx_std_20)
set_target_properties(voxdevice_options PROPERTIES INTERFACE_CXX_EXTENSIONS OFF)
set(CMAKE_CXX_EXTENSIONS OFF)
set(CMAKE_EXPORT_COMPILE_COMMANDS ON)

option(VOXDEVICE_WERROR "Treat warnings as errors" OFF)
set(VOXDEVICE_SANITIZE "" CACHE STRING "Sanitizers, as in -fsanitize=")

if(CMAKE_CXX_COMPILER_ID MATCHES "GNU|Clang")
  target_compile_options(voxdevice_options INTERFACE -Wall -Wextra -Wpedantic -Wshadow -Wconversion
    $<$<CXX_COMPILER_ID:Clang>:-Wthread-safety -Wreserved-identifier>)
  if(CMAKE_CXX_COMPILER_ID STREQUAL "GNU" AND CMAKE_CXX_COMPILER_VERSION VERSION_LESS 13)
    # GCC 12 takes "text" + std::string for an overlapping copy (its bug 105651).
    target_compile_options(voxdevice_options INTERFACE -Wno-restrict)
  endif()
  if(VOXDEVICE_WERROR)
    target_compile_options(voxdevice_options INTERFACE -Werror)
  endif()
endif()

if(MSVC)
  target_compile_options(voxdevice_options INTERFACE /W4 /utf-8 /permissive-)
endif()
if(WIN32)
  # Windows 7 and later.
  target_compile_definitions(voxdevice_options INTERFACE _WIN32_WINNT=0x0601)
endif()
if(MINGW)
  # Programs and the library need nothing that Windows does not have: the C++ runtime is linked in.
  add_link_options(-static)
  # What the loader goes by: Windows 7.
  add_link_options(LINKER:--major-subsystem-version,6,--minor-subsystem-version,1,--major-os-version,6,--minor-os-version,1)
  if(CMAKE_SIZEOF_VOID_P EQUAL 4)
    # The same arithmetic as everywhere else. Windows calls us with a stack that is aligned to 4 bytes only.
    add_compile_options(-msse2 -mfpmath=sse -mstackrealign)
  endif()
endif()

# Headers that are long and everywhere are read once, on Windows and with sanitizers. Elsewhere, no precompiled header
# hides a missing include.
function(voxdevice_precompile target)
  if(MINGW OR VOXDEVICE_SANITIZE)
    target_precompile_headers(${target} ${ARGN})
  endif()
  if(MINGW)
    # From there, GCC 12 warns of what it thinks of the standard library's own code.
    target_compile_options(${target} PRIVATE -Wno-array-bounds -Wno-stringop-overflow)
  endif()
endfunction()

# All sources of a library as one (CMAKE_UNITY_BUILD) compile in half the time. All, not some: what is in unnamed
# namespaces then meets always or never, and not when a new file moves others to another group.
set(CMAKE_UNITY_BUILD_BATCH_SIZE 0)

# Tests with sanitizers, and fuzzers, spend most of their time in a few targets. Where a build is made once, nobody
# debugs it.
function(voxdevice_hot target)
  if(VOXDEVICE_SANITIZE AND CMAKE_UNITY_BUILD)
    target_compile_options(${target} PRIVATE -O1)
  endif()
endfunction()

# What waits for devices and people: making it faster takes longer than it ever runs.
function(voxdevice_unhurried target)
  if(CMAKE_BUILD_TYPE STREQUAL Release AND NOT MSVC)
    target_compile_options(${target} PRIVATE -O1)
  endif()
endfunction()

# These are compiled alone, since they have names that others use, too.
macro(voxdevice_alone)
  set_source_files_properties(${ARGN} PROPERTIES SKIP_UNITY_BUILD_INCLUSION ON)
endmacro()

# Sanitizers concern every object that is linked, also those of a subdirectory that forgets our options.
if(VOXDEVICE_SANITIZE)
  add_compile_options(-fsanitize=${VOXDEVICE_SANITIZE} -fno-omit-frame-pointer -fno-sanitize-recover=all)
  add_link_options(-fsanitize=${VOXDEVICE_SANITIZE})
endif()

# Fuzzers need to see every branch of what they drive.
if(VOXDEVICE_FUZZ)
  add_compile_options($<$<COMPILE_LANGUAGE:CXX>:-fsanitize=fuzzer-no-link>)
endif()
