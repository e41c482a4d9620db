# Every control through the host's own driver.
start_camera
check "seen in the picture" seen_in_the_picture
check "limits and defaults" limits_and_defaults
check "refused by Linux" refused_by_linux
check "read by a driver bound anew" read_anew
check "extension unit answers" unit_answers
check "extension unit obeys" unit_obeys
check "service ends" end_service
