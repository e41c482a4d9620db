# What can happen to an attached camera during its life.
start_camera
check "no module of ours" no_module_of_ours
check "100 open, stream, close" cycles 100
check "unplug and replug, 10 times" replugs 10
check "service killed while streaming" service_dies
check "SIGTERM while streaming" stop_while_streaming
check "kill -9 while streaming" killed
check "usbip list, attach, detach" taken_by_usbip
check "server takes no messages" server_rests
check "a second client" second_client
check "suspended and resumed" suspended_and_resumed 3
check "sleep refused, stream goes on" sleep_refused
check "service ends" end_service
