# Records what Linux hosts ask the camera, as text of usbmon: a file for each, from a fresh camera on.
. "$bed/guest/checks.sh"

# recorded NAME COMMAND...: the control transfers from the camera's start until the command has ended.
recorded() {
  local name=$1 recorder
  shift
  cat /sys/kernel/debug/usb/usbmon/0u >/tmp/usbmon &
  recorder=$!
  start_camera && "$@" && end_service
  kill $recorder
  stop_parties TERM
  wait_until 5 node_gone
  grep ' C[io]:' /tmp/usbmon >"$out/$name.usbmon"
  wc -l <"$out/$name.usbmon"
  [ -s "$out/$name.usbmon" ]
}

lists_controls() { v4l2-ctl -d "$(node)" --list-ctrls-menus; }
streams() {
  local choice
  for choice in "${formats[@]}"; do
    v4l2-ctl -d "$(node)" --set-fmt-video="width=320,height=240,pixelformat=${choice%:*}" \
      --stream-mmap --stream-count=3 --stream-to=/dev/null || return
  done
  v4l2-ctl -d "$(node)" --set-ctrl=brightness=11,pan_absolute=36000,zoom_absolute=100
}

mount -t debugfs debugfs /sys/kernel/debug
check "plug in, list controls" recorded controls lists_controls
check "stream, set controls" recorded streams streams
