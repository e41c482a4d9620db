# The short form.
start_camera
check "formats and frame sizes" formats_and_sizes
check "controls and their ranges" ranges_as_documented
stream "MJPEG 1280x720" MJPG 1280x720 90
stream "YUY2 640x480" YUYV 640x480 90
check "unplug and replug" replugs 1
check "service waits in the kernel" waits_in_kernel
check "service ends" end_service
