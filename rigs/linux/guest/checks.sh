# Sourced by every part: the checks that parts consist of. Each ends by printing what it saw.

listed_formats() {
  v4l2-ctl -d "$(node)" --list-formats-ext |
    sed -nE "s/^\s*\[[0-9]+\]: '(....)'.*/format \1/p; s/^\s*Size: Discrete ([0-9]+x[0-9]+)$/size \1/p" |
    while read -r kind what; do
      if [ "$kind" = format ]; then format=$what; else echo "$format $what"; fi
    done
}
formats_and_sizes() {
  diff <("$build/capture_check" formats) <(listed_formats) || return
  echo "$(listed_formats | cut -d' ' -f1 | sort -u | wc -l) formats, $(listed_formats | wc -l) frame sizes"
}

# whole FOURCC SIZE FRAMES: a short stream, judged at once.
whole() {
  capture "$@" /tmp/capture /tmp/capture.txt || { tail -n 3 /tmp/capture.txt; return 1; }
  judge "$@"
}
judge() { "$build/capture_check" "$@" /tmp/capture /tmp/capture.txt $logs/made.log /tmp/capture.raw; }

# line_works LINE: a line of docs/host-lines.txt, run as it is but for the node; the file that it names last is decoded.
line_works() {
  local file=/tmp/lines/${1##*[ =]} options=() frames
  rm -rf /tmp/lines && mkdir /tmp/lines
  (cd /tmp/lines && timeout 120 bash -o pipefail -c "${1//\/dev\/video0/$(node)}" </dev/null) || return
  [[ $file != *.yuv ]] || options=(-f rawvideo -pix_fmt yuyv422 -video_size 640x480)
  frames=$(ffmpeg -nostdin -v error -xerror "${options[@]}" -i "$file" -f framecrc - | grep -vc '^#')
  echo "$frames frames decoded from ${file##*/}"
  [ "$frames" -ge 25 ]
}

# A host program that streams until it is stopped or the device goes.
begin_stream() {
  v4l2-ctl -d "$(node)" --verbose --set-fmt-video="width=${2%x*},height=${2#*x},pixelformat=$1" \
    --stream-mmap --stream-count=0 --stream-to=/dev/null >/tmp/stream.txt 2>&1 &
  stream=$!
  wait_until 10 frames_flow
}
frames_flow() { [ "$(grep -c 'cap dqbuf' /tmp/stream.txt)" -gt 15 ]; }
end_stream() {
  kill $stream 2>/dev/null
  wait $stream || true
}

# A capture of so many frames, in the middle of which something else happens.
begin_capture() {
  rm -f /tmp/capture.txt
  capture "$@" /tmp/capture /tmp/capture.txt &
  stream=$!
  wait_until 10 grep -q 'cap dqbuf' /tmp/capture.txt
}
end_capture() { wait $stream && judge "$@"; }

formats=(MJPG:1280x720 YUYV:640x480 H264:1920x1080 HEVC:1280x720 MJPG:320x240 YUYV:320x240 H264:640x480)

# cycles COUNT: opens, streams, closes, with another format every time.
cycles() {
  local count=$1 i choice
  for ((i = 0; i < count; i++)); do
    choice=${formats[i % ${#formats[@]}]}
    whole "${choice%:*}" "${choice#*:}" 8 || { echo "cycle $i, $choice: $(tail -n 1 /tmp/said)"; return 1; }
  done
  echo "$count streams whole, 8 frames and more each"
}

# replugs COUNT: the cable is pulled while streaming and plugged in again; the next stream must be whole.
replugs() {
  local count=$1 i
  for ((i = 0; i < count; i++)); do
    begin_stream MJPG 1280x720 || return
    unplug
    wait $stream || true
    wait_until 5 node_gone && replug && whole MJPG 1280x720 8 || { echo "replug $i: $(tail -n 1 /tmp/said)"; return 1; }
  done
  echo "$count times, the next stream whole each time"
}

# The service is started anew, so that it sleeps until there is something to do.
waits_in_kernel() {
  local before
  end_service || return
  service_options=(--wait-in-kernel)
  start_service || return
  sleep 1
  before=$(ticks)
  sleep 5
  echo "$(($(ticks) - before)) hundredths of a second of processor time in 5 s idle" | tee /tmp/ticks
  [ $(($(ticks) - before)) -le 5 ] || return
  whole MJPG 640x480 30 && v4l2-ctl -d "$(node)" --set-ctrl=brightness=3 --get-ctrl=brightness | grep -x 'brightness: 3' &&
    cat /tmp/ticks
}
ticks() { awk '{ print $14 + $15 }' "/proc/$service/stat"; }

stop_while_streaming() {
  begin_stream MJPG 1280x720 || return
  end_service TERM || return
  end_stream
  tail -n 1 /tmp/said >/tmp/end
  start_service && whole MJPG 1280x720 8 && echo "$(cat /tmp/end); whole after a restart"
}

kill_while_streaming() {
  begin_stream H264 1920x1080 || return
  end_service KILL
  end_stream
  start_service && whole H264 1920x1080 8 && echo "whole after a restart"
}

# A server that takes no messages for a while, then one that has died and is started again.
server_rests() {
  fault "server dead for 3s"
  whole YUYV 320x240 30 || return
  sleep 3
  whole MJPG 1280x720 30
}
server_restarts() {
  begin_stream MJPG 1280x720 || return
  stop_parties KILL
  start_parties || return
  end_stream
  whole MJPG 1280x720 30
}

# While one program streams, another reads and sets a control, but gets no stream; a third examines the
# gadget's own node.
examine_gadget() { v4l2-ctl -d /dev/video0 --get-fmt-video-out; }
second_client() {
  begin_capture MJPG 1280x720 150 || return
  v4l2-ctl -d "$(node)" --set-ctrl=brightness=3 --get-ctrl=brightness || return
  v4l2-ctl -d "$(node)" --stream-mmap --stream-count=1 >/tmp/second.txt 2>&1 || true
  grep busy /tmp/second.txt || { cat /tmp/second.txt; return 1; }
  examine_gadget || return
  end_capture MJPG 1280x720 150
}

runtime_suspended() {
  local interface
  interface=$(usb_interface)
  [ "$(<"/sys/bus/usb/devices/${interface%:*}/power/runtime_status")" = suspended ]
}
host_suspends_device() {
  wait_until 15 runtime_suspended || return
  whole MJPG 1280x720 8 && echo "suspended when idle; the next stream is whole"
}

# Every frame must be one of the encoder's files.
examples_stream() {
  local sums frame frames=0
  sums=$(md5sum /tmp/pictures/*.jpg)
  v4l2-ctl -d "$(node)" --set-fmt-video=width=640,height=480,pixelformat=MJPG --stream-mmap --stream-skip=3 \
    --stream-count=60 --stream-to=/tmp/examples.mjpeg || return
  for frame in $(ffmpeg -nostdin -v error -f mjpeg -i /tmp/examples.mjpeg -c copy -f framemd5 - | sed -n 's/^0,.*, //p'); do
    [[ $sums == *$frame* ]] || { echo "frame $frames is none of the pictures"; return 1; }
    frames=$((frames + 1))
  done
  echo "$frames frames, each a file of the encoder's"
  [ $frames = 60 ]
}
examples_obey() {
  v4l2-ctl -d "$(node)" --set-ctrl=brightness=12 && bind_anew && read_controls brightness | tee /tmp/read && grep -q ': 12' /tmp/read
}
