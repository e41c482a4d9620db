# Every format, captured by v4l2-ctl and judged frame by frame.
start_camera
stream "MJPEG 1280x720" MJPG 1280x720 90
stream "MJPEG 1920x1080" MJPG 1920x1080 90
stream "H264 1920x1080" H264 1920x1080 90
stream "H265 1280x720" HEVC 1280x720 90
stream "YUY2 640x480" YUYV 640x480 90
stream "YUY2 320x240" YUYV 320x240 90
check "service ends" end_service
