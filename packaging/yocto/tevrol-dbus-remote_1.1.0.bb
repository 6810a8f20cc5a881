# An example: the channel in a Yocto image. Give it the source as
# tevrol-dbus-remote-1.1.0.tar.gz beside this file (docs/device.md tells how to make it).
SUMMARY = "Point-to-point message channel between two processes over D-Bus"
LICENSE = "MIT"
LIC_FILES_CHKSUM = "file://LICENSE;md5=9a26625322c5d6e0b8c00d5f1cc1116f"

SRC_URI = "file://${BP}.tar.gz"

# systemd for sd-bus, json-glib for tevrolctl.
DEPENDS = "glib-2.0 json-glib systemd"

inherit cmake pkgconfig useradd

EXTRA_OECMAKE = "-DBUILD_SHARED_LIBS=ON -DBUILD_TESTING=OFF"
# The platform's library that provides __dlog_print, where the image has one:
# EXTRA_OECMAKE += "-DTEVROL_DLOG_LIBRARY=dlog"

# The programs are a package of their own, and "tevrolctl check" is what the documentation advises
# on a device.
PACKAGES =+ "${PN}-tools"
FILES:${PN}-tools = "${bindir} ${datadir}/bash-completion"

# The group that the bus policy names.
USERADD_PACKAGES = "${PN}"
GROUPADD_PARAM:${PN} = "--system tevrol"

# Files that the class's own lists do not name.
FILES:${PN} += "${datadir}/dbus-1/system.d/org.ulmar.Tevrol.conf"
FILES:${PN} += "${nonarch_libdir}/sysusers.d/tevrol.conf"

FILES:${PN}-dev += "${datadir}/tevrol-dbus-remote"

# The image chooses its bus: dbus-daemon or dbus-broker. tevrol-private-bus starts a dbus-daemon.
RDEPENDS:${PN} = "${VIRTUAL-RUNTIME_dbus}"
RDEPENDS:${PN}-tools = "dbus"
