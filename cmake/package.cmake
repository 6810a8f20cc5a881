# Debian packages, one for each component: cpack -G DEB in a build folder configured with the
# prefix /usr (preset "package"). The tree in the packages is the installed tree.
set(CPACK_PACKAGE_NAME tevrol-dbus-remote)
set(CPACK_PACKAGE_CONTACT "The tevrol-dbus-remote developers <root@localhost>")
set(CPACK_COMPONENTS_ALL runtime dev doc)
if(TEVROL_DEVELOPMENT)
  list(APPEND CPACK_COMPONENTS_ALL tools)
endif()
set(CPACK_SET_DESTDIR ON)
set(CPACK_INSTALL_PREFIX ${CMAKE_INSTALL_PREFIX})
set(CPACK_STRIP_FILES ON)

set(CPACK_DEB_COMPONENT_INSTALL ON)
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_SECTION libs)
# What the programs and the library link is found by dpkg-shlibdeps, the shared library of this
# very project included.
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS_PRIVATE_DIRS ${PROJECT_BINARY_DIR})
set(CPACK_DEBIAN_PACKAGE_GENERATE_SHLIBS ON)

set(this_version "= ${PROJECT_VERSION}")
set(CPACK_DEBIAN_RUNTIME_PACKAGE_NAME tevrol-dbus-remote)
set(CPACK_DEBIAN_RUNTIME_DESCRIPTION "Bus policy, group and, where built so, the shared library.")
# groupadd, for the maintainer script.
set(CPACK_DEBIAN_RUNTIME_PACKAGE_DEPENDS passwd)
set(CPACK_DEBIAN_RUNTIME_PACKAGE_RECOMMENDS default-dbus-system-bus)
set(CPACK_DEBIAN_RUNTIME_PACKAGE_CONTROL_EXTRA
    ${PROJECT_SOURCE_DIR}/packaging/debian/postinst
    ${PROJECT_SOURCE_DIR}/packaging/debian/triggers)

set(CPACK_DEBIAN_DEV_PACKAGE_NAME tevrol-dbus-remote-dev)
set(CPACK_DEBIAN_DEV_DESCRIPTION "Headers and library for development.")
set(CPACK_DEBIAN_DEV_PACKAGE_SECTION libdevel)
set(CPACK_DEBIAN_DEV_PACKAGE_DEPENDS
    "tevrol-dbus-remote (${this_version}), libglib2.0-dev, pkg-config")

set(CPACK_DEBIAN_TOOLS_PACKAGE_NAME tevrol-dbus-remote-tools)
set(CPACK_DEBIAN_TOOLS_DESCRIPTION "Programs for development.")
set(CPACK_DEBIAN_TOOLS_PACKAGE_SECTION devel)
set(CPACK_DEBIAN_TOOLS_PACKAGE_DEPENDS "tevrol-dbus-remote (${this_version}), dbus-daemon")

set(CPACK_DEBIAN_DOC_PACKAGE_NAME tevrol-dbus-remote-doc)
set(CPACK_DEBIAN_DOC_DESCRIPTION "Documentation and examples.")
set(CPACK_DEBIAN_DOC_PACKAGE_SECTION doc)
set(CPACK_DEBIAN_DOC_PACKAGE_ARCHITECTURE all)

include(CPack)
