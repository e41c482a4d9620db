# The short form of the parts with an attached camera.
start_camera
check "no module of ours" no_module_of_ours
check "formats and frame sizes" formats_and_sizes
stream "MJPEG 1280x720" MJPG 1280x720 30
stream "YUY2 320x240" YUYV 320x240 30
check "unplug and replug" replugs 1
check "kill -9 while streaming" killed
check "service ends" end_service
