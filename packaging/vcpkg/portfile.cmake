# An example: an overlay port of the libraries, from the source that this file is in. libsystemd is the
# system's.
get_filename_component(SOURCE_PATH ${CMAKE_CURRENT_LIST_DIR}/../.. ABSOLUTE)
vcpkg_cmake_configure(SOURCE_PATH ${SOURCE_PATH} OPTIONS -DTEVROL_DEVELOPMENT=OFF)
vcpkg_cmake_install()
foreach(package tevrol-dbus-remote tevrol-channel)
  vcpkg_cmake_config_fixup(PACKAGE_NAME ${package} CONFIG_PATH lib/cmake/${package}
                           DO_NOT_DELETE_PARENT_CONFIG_PATH)
endforeach()
vcpkg_fixup_pkgconfig()
file(REMOVE_RECURSE ${CURRENT_PACKAGES_DIR}/debug/include ${CURRENT_PACKAGES_DIR}/debug/share
     ${CURRENT_PACKAGES_DIR}/lib/cmake ${CURRENT_PACKAGES_DIR}/debug/lib/cmake)
vcpkg_install_copyright(FILE_LIST ${SOURCE_PATH}/LICENSE)
