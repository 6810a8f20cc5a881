# Installation, in four components:
#   runtime  what a device needs: the shared library (in a shared build), the bus policy, the group
#   dev      what building an application needs: headers, library, CMake package, pkg-config file
#   tools    the programs for development, where they are built
#   doc      documentation, the example applications and a unit
include(CMakePackageConfigHelpers)

# ---- runtime ----
install(TARGETS tevrol-dbus-remote EXPORT tevrol-dbus-remote-targets
        LIBRARY COMPONENT runtime NAMELINK_COMPONENT dev
        ARCHIVE COMPONENT dev)
install(FILES packaging/dbus/org.ulmar.Tevrol.conf
        DESTINATION ${CMAKE_INSTALL_DATADIR}/dbus-1/system.d COMPONENT runtime)
# Not CMAKE_INSTALL_LIBDIR: systemd looks in lib alone.
install(FILES packaging/sysusers.d/tevrol.conf DESTINATION lib/sysusers.d COMPONENT runtime)

# ---- dev ----
foreach(header common/PTMutex.h ipc/tevrol-dbus-remote.h platform/dlog.h)
  get_filename_component(folder ${header} DIRECTORY)
  install(FILES src/${header} DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}/tevrol/${folder}
          COMPONENT dev)
endforeach()

set(package_dir ${CMAKE_INSTALL_LIBDIR}/cmake/tevrol-dbus-remote)
install(EXPORT tevrol-dbus-remote-targets NAMESPACE tevrol:: DESTINATION ${package_dir}
        COMPONENT dev)
configure_package_config_file(cmake/tevrol-dbus-remote-config.cmake.in
                              tevrol-dbus-remote-config.cmake
                              INSTALL_DESTINATION ${package_dir})
write_basic_package_version_file(tevrol-dbus-remote-config-version.cmake
                                 COMPATIBILITY SameMajorVersion)
install(FILES ${PROJECT_BINARY_DIR}/tevrol-dbus-remote-config.cmake
              ${PROJECT_BINARY_DIR}/tevrol-dbus-remote-config-version.cmake
        DESTINATION ${package_dir} COMPONENT dev)

# A path or a bare name: what a linker line needs.
set(pc_log "")
if(TEVROL_DLOG_LIBRARY)
  if(IS_ABSOLUTE "${TEVROL_DLOG_LIBRARY}")
    set(pc_log " ${TEVROL_DLOG_LIBRARY}")
  else()
    set(pc_log " -l${TEVROL_DLOG_LIBRARY}")
  endif()
endif()
if(BUILD_SHARED_LIBS)
  set(pc_libs "")
  set(pc_libs_private "${pc_log} -pthread")
else()
  # Static only: whoever links it needs what it needs.
  set(pc_libs "${pc_log} -lstdc++ -pthread")
  set(pc_libs_private "")
endif()
# The prefix is settled at installation: cmake --install may name another one.
set(pc_prefix "@CMAKE_INSTALL_PREFIX@")
set(pc_file ${PROJECT_BINARY_DIR}/tevrol-dbus-remote.pc)
configure_file(cmake/tevrol-dbus-remote.pc.in ${pc_file}.in @ONLY)
install(CODE "configure_file(\"${pc_file}.in\" \"${pc_file}\" @ONLY)" COMPONENT dev)
install(FILES ${pc_file} DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig COMPONENT dev)

# ---- tools ----
if(TEVROL_DEVELOPMENT)
  set(installed_tools tevrol-partner tevrol-private-bus tevrolctl)
  # They find the shared library under any prefix.
  file(RELATIVE_PATH bin_to_lib ${CMAKE_INSTALL_FULL_BINDIR} ${CMAKE_INSTALL_FULL_LIBDIR})
  set_target_properties(${installed_tools} PROPERTIES INSTALL_RPATH "$ORIGIN/${bin_to_lib}")
  install(TARGETS ${installed_tools} RUNTIME COMPONENT tools)
endif()

# ---- doc ----
install(FILES README.md CHANGELOG.md DESTINATION ${CMAKE_INSTALL_DOCDIR} COMPONENT doc)
install(DIRECTORY docs/ DESTINATION ${CMAKE_INSTALL_DOCDIR}/docs COMPONENT doc
        FILES_MATCHING PATTERN "*.md" PATTERN "*.svg")
install(FILES examples/minimal.cpp examples/threaded.cpp
              packaging/systemd/tevrol-example.service
              packaging/sysusers.d/tevrol-example.conf
        DESTINATION ${CMAKE_INSTALL_DOCDIR}/examples COMPONENT doc)
