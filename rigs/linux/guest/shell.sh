# The camera and its service run, and a person looks at them.
start_camera
stty -F /dev/ttyS0 sane
echo "The host's node is $(node), the service $service, its output $out/service.txt; end with exit." >/dev/ttyS0
setsid -c bash -i </dev/ttyS0 >/dev/ttyS0 2>&1
