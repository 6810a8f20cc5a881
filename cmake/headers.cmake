# The headers of a library, in the build tree as they are installed.

configure_file(cmake/version.h.in ${PROJECT_BINARY_DIR}/version.h @ONLY)

# set_public_headers(TARGET FOLDER HEADER|HEADER=INSTALLED...): applications find the headers below
# FOLDER ("" or "/...") of the include folder. HEADER is in src, or version.h; INSTALLED is where applications find it.
function(set_public_headers target folder)
  set(search ${CMAKE_INSTALL_INCLUDEDIR}${folder})
  set(build_search ${PROJECT_BINARY_DIR}/include${folder})
  foreach(header ${ARGN})
    string(REGEX REPLACE "=.*" "" source ${header})
    string(REGEX REPLACE ".*=" "" installed ${header})
    set(path ${PROJECT_SOURCE_DIR}/src/${source})
    if(source STREQUAL version.h)
      set(path ${PROJECT_BINARY_DIR}/version.h)
    endif()
    get_filename_component(directory ${installed} DIRECTORY)
    get_filename_component(name ${installed} NAME)
    file(MAKE_DIRECTORY ${build_search}/${directory})
    file(CREATE_LINK ${path} ${build_search}/${installed} SYMBOLIC)
    if(TEVROL_INSTALL)
      install(FILES ${path} DESTINATION ${search}/${directory} RENAME ${name} COMPONENT dev)
    endif()
  endforeach()

  # This project itself sees all of its source. A parent sees what it would see of an installation.
  set(build_interface ${build_search})
  if(tevrol_is_top_level)
    set(build_interface ${PROJECT_SOURCE_DIR}/src ${build_search})
  endif()
  target_include_directories(${target} PUBLIC "$<BUILD_INTERFACE:${build_interface}>"
                                              $<INSTALL_INTERFACE:${search}>)
endfunction()
