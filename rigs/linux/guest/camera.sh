# Sourced by every part: the camera around the service, the service itself, and a row of the table for every check.
# Needs $build and $bed, the project's folders as the guest sees them, and $patience, the factor for every limit.
out=/out

now() {
  local up
  read -r up _ </proc/uptime
  echo "$up"
}

# check NAME COMMAND...: holds if the command succeeds; the last line that it prints goes into the table.
check() {
  local name=$1 begin verdict=held
  shift
  begin=$(now)
  "$@" >/tmp/said 2>&1 || verdict=FAILED
  row "$name" "$begin" "$verdict" "$(tail -n 1 /tmp/said)"
  { echo "== $name: $verdict"; cat /tmp/said; } >>$out/checks.txt
}

# row NAME BEGIN VERDICT DETAIL
row() { printf '%s\t%.1f\t%s\t%s\n' "$1" "$(bc_minus "$(now)" "$2")" "$3" "$4" >>$out/rows; }
bc_minus() { awk "BEGIN { print $1 - $2 }"; }

# wait_until SECONDS COMMAND...: on an idle PC.
wait_until() {
  local end=$((SECONDS + $1 * patience))
  shift
  until "$@" >/dev/null 2>&1; do
    [ $SECONDS -lt $end ] || { echo "not within the limit: $*"; return 1; }
    sleep 0.1
  done
}

# Prints the host's capture node, or nothing if there is none.
node() {
  local device
  for device in /sys/class/video4linux/*; do
    [[ $(readlink "$device/device/driver") == */uvcvideo && $(<"$device/index") == 0 ]] || continue
    echo "/dev/${device##*/}"
    return
  done
  return 1
}
node_answers() { v4l2-ctl -d "$(node || echo none)" --get-input; }
node_gone() { ! node; }
# Prints the interface of the USB device that the node belongs to, such as 1-1:1.0.
usb_interface() { basename "$(readlink "/sys/class/video4linux/$(basename "$(node)")/device")"; }

# The encoder that the PC lends: memory of a device on the guest's PCI bus.
lent_encoder() {
  local device
  for device in /sys/bus/pci/devices/*; do
    [[ $(<"$device/vendor") == 0x1af4 && $(<"$device/device") == 0x1110 ]] || continue
    echo 1 >"$device/enable"
    echo "$device/resource2"
  done
}

# Server, media process and log collector; faults go to their standard input. Each start writes its logs to a folder
# of its own.
starts=0
start_parties() {
  logs=$out/camera.$((++starts))
  mkdir -p $logs
  [ -p /tmp/faults ] || mkfifo /tmp/faults
  "$build/camera_parties" $logs "$(lent_encoder)" <>/tmp/faults 2>>$out/errors.txt &
  parties=$!
  wait_until 10 test -e $logs/ready || { echo "the parties around the service did not start"; return 1; }
}
stop_parties() { kill "-$1" "$parties" && { wait "$parties" || true; }; }
fault() { echo "$*" >/tmp/faults; }

start_service() {
  "$build/uvc_gadget" "${service_options[@]}" >>$out/service.txt 2>&1 &
  service=$!
  wait_until 20 node_answers || { echo "no camera on the bus; the service: $(tail -n 1 $out/service.txt)"; return 1; }
}
# Prints the service's exit status and how long it took to end.
end_service() {
  local begin status=0
  begin=$(now)
  kill "-${1:-TERM}" "$service"
  wait "$service" || status=$?
  echo "exit status $status after $(bc_minus "$(now)" "$begin") s"
  return $status
}
camera_starts() {
  mkdir -p /opt/params /opt/base /opt/vcam/www/config
  # The driver then passes on torn frames, so that a missing number means a slow client.
  echo 1 >/sys/module/uvcvideo/parameters/nodrop
  start_parties && start_service
}
# Without a camera, nothing else can be judged.
start_camera() {
  local begin
  begin=$(now)
  camera_starts >/tmp/said 2>&1 && return
  row "camera starts" "$begin" FAILED "$(tail -n 1 /tmp/said)"
  exit 1
}

# The port's power on the emulated hub serves as the cable.
cable() { echo "$1" >/sys/bus/usb/devices/1-0:1.0/usb1-port1/disable; }
unplug() { cable 1; }
replug() { cable 0 && wait_until 20 node_answers; }

# capture FOURCC SIZE FRAMES FILE LOG: with v4l2-ctl, into the guest's memory first, since the shared folder is slow.
# Takes three more than FRAMES, because the first payloads of a stream are empty. The host has priority, as if it were a
# machine of its own.
capture() {
  timeout $((120 * patience)) nice -n -15 v4l2-ctl -d "$(node)" --verbose --set-fmt-video="width=${2%x*},height=${2#*x},pixelformat=$1" \
    --stream-mmap=24 --stream-count=$(($3 + 3)) --stream-to-hdr="$4" >"$5" 2>&1
}

# stream NAME FOURCC SIZE FRAMES: a capture that the PC judges afterwards; the PC also fills in the row.
stream() {
  local file=$out/${1// /-} begin status=0
  begin=$(now)
  capture "$2" "$3" "$4" /tmp/capture "$file.txt" || status=$?
  row "$1" "$begin" capture "$2 $3 $4 $status ${logs##*/}"
  mv /tmp/capture "$file.capture"
}
