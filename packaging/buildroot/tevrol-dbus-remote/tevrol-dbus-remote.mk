################################################################################
#
# tevrol-dbus-remote
#
################################################################################

# An example: the channel in a Buildroot image. TEVROL_DBUS_REMOTE_SITE is the
# folder of the source.
TEVROL_DBUS_REMOTE_VERSION = 1.0.0
TEVROL_DBUS_REMOTE_SITE ?= $(BR2_EXTERNAL_TEVROL_PATH)/../..
TEVROL_DBUS_REMOTE_SITE_METHOD = local
# The repository states no licence.
TEVROL_DBUS_REMOTE_LICENSE = PROPRIETARY
TEVROL_DBUS_REMOTE_REDISTRIBUTE = NO
TEVROL_DBUS_REMOTE_INSTALL_STAGING = YES
TEVROL_DBUS_REMOTE_DEPENDENCIES = host-pkgconf libglib2
# Shared or static: as BR2_SHARED_LIBS and BR2_STATIC_LIBS say, by Buildroot's
# own BUILD_SHARED_LIBS.
TEVROL_DBUS_REMOTE_CONF_OPTS = -DTEVROL_DEVELOPMENT=OFF

# The group that the bus policy names.
define TEVROL_DBUS_REMOTE_USERS
	- -1 tevrol -1 - - - - Ends of tevrol channels
endef

$(eval $(cmake-package))
