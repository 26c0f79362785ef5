# A header-only library. On the system itself its package is found; a cross build takes the same headers, by themselves:
# the folder in which the system keeps them holds headers of the system's own.
function(voxdevice_header_library package target folder)
  if(NOT CMAKE_CROSSCOMPILING)
    find_package(${package} REQUIRED)
    set_property(TARGET ${target} PROPERTY IMPORTED_GLOBAL TRUE)
    return()
  endif()
  find_path(${package}_PARENT NAMES ${folder} PATHS /usr/include REQUIRED NO_DEFAULT_PATH NO_CMAKE_FIND_ROOT_PATH)
  file(COPY ${${package}_PARENT}/${folder} DESTINATION ${PROJECT_BINARY_DIR}/headers/${package})
  add_library(${target} INTERFACE IMPORTED GLOBAL)
  target_include_directories(${target} SYSTEM INTERFACE ${PROJECT_BINARY_DIR}/headers/${package})
endfunction()
