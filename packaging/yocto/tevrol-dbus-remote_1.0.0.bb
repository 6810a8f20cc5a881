# An example: the channel in a Yocto image. Give it the source as
# tevrol-dbus-remote-1.0.0.tar.gz beside this file (docs/device.md tells how to make it).
SUMMARY = "Point-to-point message channel between two processes over D-Bus"
# The repository states no licence.
LICENSE = "CLOSED"

SRC_URI = "file://${BP}.tar.gz"

DEPENDS = "glib-2.0"
RDEPENDS:${PN} = "dbus"

inherit cmake pkgconfig useradd

EXTRA_OECMAKE = "-DBUILD_SHARED_LIBS=ON -DTEVROL_DEVELOPMENT=OFF"
# The platform's library that provides __dlog_print, where the image has one:
# EXTRA_OECMAKE += "-DTEVROL_DLOG_LIBRARY=dlog"

# The group that the bus policy names.
USERADD_PACKAGES = "${PN}"
GROUPADD_PARAM:${PN} = "--system tevrol"

# What the class's own lists do not name.
FILES:${PN} += "${datadir}/dbus-1/system.d/org.ulmar.Tevrol.conf"
FILES:${PN} += "${nonarch_libdir}/sysusers.d/tevrol.conf"
