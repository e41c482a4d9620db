# What can happen to a camera during its life.
start_camera
check "50 open, stream, close" cycles 50
check "unplug and replug, 10 times" replugs 10
check "SIGTERM while streaming" stop_while_streaming
check "kill -9 while streaming" kill_while_streaming
check "server takes no messages" server_rests
check "server dies and restarts" server_restarts
check "a second client" second_client
check "idle device suspended" host_suspends_device
check "service ends" end_service
