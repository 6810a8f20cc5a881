include $(sort $(wildcard $(BR2_EXTERNAL_TEVROL_PATH)/*/*.mk))
