# The camera and its service run, and a person looks at them.
stty -F /dev/ttyS0 sane rows "$LINES" cols "$COLUMNS"
unset LINES COLUMNS
camera_starts >/tmp/said 2>&1 || echo "The camera did not start: $(tail -n 1 /tmp/said)" >/dev/ttyS0
export build patience
export -f fault cable unplug replug wait_until node node_answers
cat >/dev/ttyS0 <<TEXT
The host's node is $(node), the service $service, its output $out/service.txt; end with exit.
  fault server dead for 3s        plays a fault of the parties around the service
  \$build/camera_parties          lists the faults, but for those of driver and cable
  unplug, replug                  the USB cable
TEXT
setsid -c bash -i </dev/ttyS0 >/dev/ttyS0 2>&1
