# Installation: the library, its headers, a CMake package and a pkg-config file.
include(CMakePackageConfigHelpers)

install(TARGETS tevrol-dbus-remote EXPORT tevrol-dbus-remote-targets)
foreach(header common/PTMutex.h ipc/tevrol-dbus-remote.h platform/dlog.h)
  get_filename_component(folder ${header} DIRECTORY)
  install(FILES src/${header} DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}/tevrol/${folder})
endforeach()

set(package_dir ${CMAKE_INSTALL_LIBDIR}/cmake/tevrol-dbus-remote)
install(EXPORT tevrol-dbus-remote-targets NAMESPACE tevrol:: DESTINATION ${package_dir})
configure_package_config_file(cmake/tevrol-dbus-remote-config.cmake.in
                              tevrol-dbus-remote-config.cmake
                              INSTALL_DESTINATION ${package_dir})
write_basic_package_version_file(tevrol-dbus-remote-config-version.cmake
                                 COMPATIBILITY SameMajorVersion)
install(FILES ${PROJECT_BINARY_DIR}/tevrol-dbus-remote-config.cmake
              ${PROJECT_BINARY_DIR}/tevrol-dbus-remote-config-version.cmake
        DESTINATION ${package_dir})

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
configure_file(cmake/tevrol-dbus-remote.pc.in tevrol-dbus-remote.pc @ONLY)
install(FILES ${PROJECT_BINARY_DIR}/tevrol-dbus-remote.pc
        DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig)
