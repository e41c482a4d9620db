# The host's standard tools see what the camera's descriptors and tables announce.
start_camera
check "formats and frame sizes" formats_and_sizes
check "controls and their ranges" ranges_as_documented
check "service ends" end_service
