################################################################################
#
# tevrol-dbus-remote
#
################################################################################

# An example: the channel in a Buildroot image. TEVROL_DBUS_REMOTE_SITE is the
# folder of the source.
TEVROL_DBUS_REMOTE_VERSION = 1.1.0
TEVROL_DBUS_REMOTE_SITE ?= $(BR2_EXTERNAL_TEVROL_PATH)/../..
TEVROL_DBUS_REMOTE_SITE_METHOD = local
TEVROL_DBUS_REMOTE_LICENSE = MIT
TEVROL_DBUS_REMOTE_LICENSE_FILES = LICENSE
TEVROL_DBUS_REMOTE_INSTALL_STAGING = YES
TEVROL_DBUS_REMOTE_DEPENDENCIES = host-pkgconf libglib2
# Buildroot itself sets BUILD_SHARED_LIBS by BR2_SHARED_LIBS and BR2_STATIC_LIBS.
TEVROL_DBUS_REMOTE_CONF_OPTS = -DBUILD_TESTING=OFF

# tevrol::Channel, where the image has sd-bus. The programs need it too.
ifeq ($(BR2_PACKAGE_SYSTEMD),y)
TEVROL_DBUS_REMOTE_DEPENDENCIES += systemd
TEVROL_DBUS_REMOTE_CONF_OPTS += -DTEVROL_CHANNEL=ON
else
TEVROL_DBUS_REMOTE_CONF_OPTS += -DTEVROL_CHANNEL=OFF
endif

ifeq ($(BR2_PACKAGE_TEVROL_DBUS_REMOTE_TOOLS),y)
TEVROL_DBUS_REMOTE_DEPENDENCIES += json-glib
TEVROL_DBUS_REMOTE_CONF_OPTS += -DTEVROL_DEVELOPMENT=ON
else
TEVROL_DBUS_REMOTE_CONF_OPTS += -DTEVROL_DEVELOPMENT=OFF
endif

# The group that the bus policy names.
define TEVROL_DBUS_REMOTE_USERS
	- -1 tevrol -1 - - - - Ends of tevrol channels
endef

$(eval $(cmake-package))
