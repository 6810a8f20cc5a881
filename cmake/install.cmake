# Installation, in four components:
#   runtime  what a device needs: the shared library (in a shared build), the bus policy, the group
#   dev      what building an application needs: headers, library, CMake package, pkg-config file
#   tools    the programs for development, where they are built
#   doc      documentation, the example applications and a unit
include(CMakePackageConfigHelpers)

# ---- runtime and dev: the libraries ----
# A path or a bare name: what a linker line needs.
set(pc_log "")
if(TEVROL_DLOG_LIBRARY)
  if(IS_ABSOLUTE "${TEVROL_DLOG_LIBRARY}")
    set(pc_log " ${TEVROL_DLOG_LIBRARY}")
  else()
    set(pc_log " -l${TEVROL_DLOG_LIBRARY}")
  endif()
endif()
# The prefix is settled at installation: cmake --install may name another one.
set(pc_prefix "@CMAKE_INSTALL_PREFIX@")
# Below the prefix, unless they are whole paths.
set(pc_libdir "\${prefix}/${CMAKE_INSTALL_LIBDIR}")
if(IS_ABSOLUTE "${CMAKE_INSTALL_LIBDIR}")
  set(pc_libdir "${CMAKE_INSTALL_LIBDIR}")
endif()
set(pc_includedir "\${prefix}/${CMAKE_INSTALL_INCLUDEDIR}")
if(IS_ABSOLUTE "${CMAKE_INSTALL_INCLUDEDIR}")
  set(pc_includedir "${CMAKE_INSTALL_INCLUDEDIR}")
endif()

# The CMake package of the library `target`, in the build tree.
function(export_library target)
  set(package_dir ${CMAKE_INSTALL_LIBDIR}/cmake/${target})
  configure_package_config_file(cmake/${target}-config.cmake.in ${target}-config.cmake
                                INSTALL_DESTINATION ${package_dir})
  write_basic_package_version_file(${target}-config-version.cmake
                                   COMPATIBILITY SameMajorVersion)
  export(TARGETS ${target} NAMESPACE tevrol:: FILE ${PROJECT_BINARY_DIR}/${target}-targets.cmake)
endfunction()

# The library `target`, its CMake package and its pkg-config file. Applications find headers in the
# subfolder `includes` of the include folder, and need the pkg-config modules `public_modules`; the
# library itself needs `private_modules`.
function(install_library target includes public_modules private_modules)
  install(TARGETS ${target} EXPORT ${target}-targets
          LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR} COMPONENT runtime NAMELINK_COMPONENT dev
          ARCHIVE DESTINATION ${CMAKE_INSTALL_LIBDIR} COMPONENT dev)
  set(package_dir ${CMAKE_INSTALL_LIBDIR}/cmake/${target})
  install(EXPORT ${target}-targets NAMESPACE tevrol:: DESTINATION ${package_dir} COMPONENT dev)
  install(FILES ${PROJECT_BINARY_DIR}/${target}-config.cmake
                ${PROJECT_BINARY_DIR}/${target}-config-version.cmake
          DESTINATION ${package_dir} COMPONENT dev)

  set(pc_requires ${public_modules})
  set(pc_libs "")
  set(pc_libs_private "${pc_log} -pthread")
  if(NOT BUILD_SHARED_LIBS)
    # Static only: whoever links it needs what it needs.
    set(pc_requires "${public_modules} ${private_modules}")
    set(pc_libs "${pc_log} -lstdc++ -pthread")
    set(pc_libs_private "")
  endif()
  set(pc_file ${PROJECT_BINARY_DIR}/${target}.pc.in)
  configure_file(cmake/library.pc.in ${pc_file} @ONLY)
  # Straight to its place: whoever installs may not be able to write to the build tree.
  set(pc_folder "\${CMAKE_INSTALL_PREFIX}/${CMAKE_INSTALL_LIBDIR}/pkgconfig")
  if(IS_ABSOLUTE "${CMAKE_INSTALL_LIBDIR}")
    set(pc_folder "${CMAKE_INSTALL_LIBDIR}/pkgconfig")
  endif()
  install(CODE "
    message(STATUS \"Installing: \$ENV{DESTDIR}${pc_folder}/${target}.pc\")
    configure_file(\"${pc_file}\" \"\$ENV{DESTDIR}${pc_folder}/${target}.pc\" @ONLY)
    list(APPEND CMAKE_INSTALL_MANIFEST_FILES \"${pc_folder}/${target}.pc\")" COMPONENT dev)
endfunction()

export_library(tevrol-dbus-remote)
if(TEVROL_CHANNEL)
  export_library(tevrol-channel)
endif()
if(NOT TEVROL_INSTALL)
  return()
endif()

install_library(tevrol-dbus-remote "/tevrol" "gio-2.0 >= 2.58" "")
if(TEVROL_CHANNEL)
  install_library(tevrol-channel "" "" ${TEVROL_SDBUS})
endif()

# ---- runtime: who may use the bus ----
install(FILES packaging/dbus/org.ulmar.Tevrol.conf
        DESTINATION ${CMAKE_INSTALL_DATADIR}/dbus-1/system.d COMPONENT runtime)
# Not CMAKE_INSTALL_LIBDIR: systemd looks in lib alone.
install(FILES packaging/sysusers.d/tevrol.conf DESTINATION lib/sysusers.d COMPONENT runtime)

# ---- tools ----
if(TEVROL_DEVELOPMENT)
  set(installed_tools tevrol-partner tevrol-private-bus tevrolctl)
  # They find the shared library under any prefix.
  file(RELATIVE_PATH bin_to_lib ${CMAKE_INSTALL_FULL_BINDIR} ${CMAKE_INSTALL_FULL_LIBDIR})
  set_target_properties(${installed_tools} PROPERTIES INSTALL_RPATH "$ORIGIN/${bin_to_lib}")
  install(TARGETS ${installed_tools} RUNTIME COMPONENT tools)
  install(DIRECTORY packaging/man/ DESTINATION ${CMAKE_INSTALL_MANDIR}/man1 COMPONENT tools)
  install(DIRECTORY packaging/completion/
          DESTINATION ${CMAKE_INSTALL_DATADIR}/bash-completion/completions COMPONENT tools)
endif()

# ---- doc ----
# The pages. Links to what is not installed become plain text.
file(GLOB pages RELATIVE ${PROJECT_SOURCE_DIR} CONFIGURE_DEPENDS
     ${PROJECT_SOURCE_DIR}/*.md ${PROJECT_SOURCE_DIR}/docs/*.md)
foreach(page ${pages})
  file(READ ${PROJECT_SOURCE_DIR}/${page} text)
  string(REGEX REPLACE "\\[([^]]*)\\]\\((\\.\\./)?(LICENSE|bench|debian|packaging|src|tests)[^)]*\\)"
         "\\1" text "${text}")
  file(WRITE ${PROJECT_BINARY_DIR}/pages/${page} "${text}")
  get_filename_component(folder ${CMAKE_INSTALL_DOCDIR}/${page} DIRECTORY)
  install(FILES ${PROJECT_BINARY_DIR}/pages/${page} DESTINATION ${folder} COMPONENT doc)
endforeach()
set_property(DIRECTORY APPEND PROPERTY CMAKE_CONFIGURE_DEPENDS ${pages})
install(DIRECTORY docs/images DESTINATION ${CMAKE_INSTALL_DOCDIR}/docs COMPONENT doc)
file(GLOB examples CONFIGURE_DEPENDS examples/*.cpp examples/*.h examples/*.py)
install(FILES ${examples}
              packaging/systemd/tevrol-example.service
              packaging/sysusers.d/tevrol-example.conf
        DESTINATION ${CMAKE_INSTALL_DOCDIR}/examples COMPONENT doc)

# ---- dev: for applications that are run under valgrind or a sanitizer ----
foreach(tool lsan tsan valgrind)
  install(FILES tests/sanitizers/${tool}.supp
          DESTINATION ${CMAKE_INSTALL_DATADIR}/tevrol-dbus-remote COMPONENT dev)
endforeach()
