include $(sort $(wildcard $(BR2_EXTERNAL_UVC_GADGET_PATH)/package/*/*.mk))
