################################################################################
#
# uvc_gadget
#
################################################################################

UVC_GADGET_VERSION = 1.0.0
UVC_GADGET_SITE = $(BR2_EXTERNAL_UVC_GADGET_PATH)/../..
UVC_GADGET_SITE_METHOD = local
UVC_GADGET_CONF_OPTS = \
	-DUVC_PC=OFF \
	-DBUILD_TESTING=OFF \
	-DCMAKE_INSTALL_PREFIX=/ \
	-DMEDIA_LIBRARY_DIR=$(call qstrip,$(BR2_PACKAGE_UVC_GADGET_MEDIA_LIBRARY_DIR)) \
	-DMEDIA_INCLUDE_DIR=$(call qstrip,$(BR2_PACKAGE_UVC_GADGET_MEDIA_INCLUDE_DIR))

$(eval $(cmake-package))
