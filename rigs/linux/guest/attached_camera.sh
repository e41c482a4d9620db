# Sourced by the parts in which the camera is a USB device that camera_sim attaches to the kernel's virtual controller.
# One program then plays all that is around the service, and what the other checks do to the service, they do to it.
modules_at_first=$(lsmod)
mkfifo /tmp/prompt
exec 7<>/tmp/prompt
prompt() { echo "$*" >&7; }
fault() { prompt fault "$@"; }
unplug() { prompt unplug; }
examine_gadget() { :; }
replug() { prompt plug && wait_until 20 node_answers; }

start_parties() { :; }
# offer --attach | --listen
offer() {
  logs=$out/camera.$((++starts))
  mkdir -p $logs
  "$build/camera_sim" "$1" --out $logs --lent-encoder "$(lent_encoder)" <&7 >$logs/attached.txt 2>&1 &
  service=$!
}
start_service() {
  offer --attach
  wait_until 20 node_answers || { tail -n 3 $logs/attached.txt; return 1; }
}

# The kernel counts as tainted from the first module on that is not its own.
no_module_of_ours() {
  local loaded
  loaded=$(lsmod)
  [[ $modules_at_first != *vhci_hcd* && $loaded == *vhci_hcd* ]] || { echo "the controller: $loaded"; return 1; }
  [[ $loaded != *dwc_otg* && $loaded != *g_webcam* && $(</proc/sys/kernel/tainted) = 0 ]] || { echo "$loaded"; return 1; }
  echo "Linux $(uname -r); camera_sim loaded vhci_hcd"
}

service_dies() {
  begin_stream H264 1920x1080 || return
  prompt service kill
  wait_until 5 node_gone || return
  end_stream
  prompt service start
  wait_until 20 node_answers && whole H264 1920x1080 8 && echo "the device went; whole after a restart"
}

suspended_and_resumed() {
  local i
  for ((i = 0; i < $1; i++)); do host_suspends_device || return; done
  echo "$1 times; the next stream is whole"
}

# The kernel does not put its virtual controller to sleep while a device is attached. Without that, the test mode would
# wake it after 5 s.
sleep_refused() {
  begin_capture MJPG 1280x720 90 || return
  echo devices >/sys/power/pm_test
  if echo freeze >/sys/power/state 2>/tmp/refused; then echo "it went to sleep"; return 1; fi
  cat /tmp/refused
  grep -q 'Device or resource busy' /tmp/refused && end_capture MJPG 1280x720 90
}

# As another PC gets it: by the client of usbip, from the network.
listed_by_usbip() { usbip list -r 127.0.0.1 | grep -q '^ *1-1:'; }
taken_by_usbip() {
  local said
  end_service && wait_until 5 node_gone || return
  busybox ip link set lo up
  offer --listen
  wait_until 20 listed_by_usbip && usbip attach -r 127.0.0.1 -b 1-1 && wait_until 20 node_answers || return
  said=$(whole MJPG 1280x720 30) && usbip detach -p 00 && wait_until 5 node_gone || { echo "$said"; return 1; }
  end_service && start_service && echo "listed, attached, detached; $said"
}

ports_free() { ! awk 'FNR > 1 && $3 != "004"' /sys/devices/platform/vhci_hcd.*/status* | grep .; }
processes_ended() { ! cat /proc/[0-9]*/comm | grep -xE 'camera_sim|uvc_gadget_sim'; }
files_and_keys_gone() { ! { find /dev/shm /dev/mqueue -mindepth 1; tail -qn +2 /proc/sysvipc/*; } | grep .; }
killed() {
  begin_stream MJPG 1280x720 || return
  end_service KILL
  wait_until 5 node_gone && wait_until 5 ports_free && wait_until 5 processes_ended &&
    wait_until 5 files_and_keys_gone || return
  end_stream
  start_service && whole MJPG 1280x720 8 && echo "no node, port, process, file or key left; whole after a restart"
}
