# Sourced by the parts that judge controls: what the host's driver shows and does, compared with docs/controls.md.
documented() { awk -f "$bed/guest/documented.awk" "$bed/../../docs/controls.md" | sed -n "s/^$1\t//p"; }

# NAME RANGE of every listed control, as the page writes it. The default that Linux shows for zoom_continuous
# is a left-over.
listed_ranges() {
  v4l2-ctl -d "$(node)" --list-ctrls-menus | tee $out/controls.txt | awk '
    /0x[0-9a-f]+ \(/ { flush(); name = $1; range = $3 }
    /\(int\)/ { gsub(/[a-z]+=/, ""); range = $3 " " $5 ".." $6 ", step " $7 ", default " $8 }
    /\(bool\)/ { range = $3 " " $5; sub("=", " ", range) }
    /^[ \t]+[0-9]+: / { sub(/^[ \t]+/, ""); range = range (range ~ /:/ ? ", " : " ") $0 }
    function flush() { if (name != "") print name "\t" range }
    END { flush() }' | sed '/^zoom_continuous/s/default.*/default -/'
}
ranges_as_documented() {
  diff <(documented shows | cut -f1,2 | sort) <(listed_ranges | sort) && echo "$(documented shows | wc -l) controls"
}

# The VISCA frames that the server has received since the last call, as the page writes them, without inquiries.
seen=0
new_frames() {
  tail -n "+$((seen + 1))" $logs/server.log | sed -n 's/^sys 39 \(81 01 .*\) ->.*/\1/p' | paste -sd, | sed 's/,/, /g'
}
frames_are() { [ "$(new_frames)" = "$1" ]; }
forget_frames() { seen=$(wc -l <$logs/server.log); }

declare -A value_of
# Linux offers these only while the automatic white balance is off.
manual_white_balance="white_balance_temperature blue_balance"
# set_controls NAME=VALUE[,NAME=VALUE] [NAME[,NAME]]: then reads the names, one per line.
set_controls() {
  local each
  v4l2-ctl -d "$(node)" --set-ctrl="$1" ${2:+--get-ctrl="$2"} || return
  for each in ${1//,/ }; do value_of[${each%=*}]=${each#*=}; done
}
read_controls() { v4l2-ctl -d "$(node)" --get-ctrl="$1"; }

# set_and_read NAME=VALUE[,NAME=VALUE] FRAMES
set_and_read() {
  local names
  if [[ " $manual_white_balance " == *" ${1%%=*} "* ]]; then set_controls white_balance_automatic=0 || return; fi
  sleep 0.1
  forget_frames
  names=$(sed 's/=[^,]*//g' <<<"$1")
  set_controls "$1" "$names" >/tmp/read || return
  diff <(tr ',' '\n' <<<"${1//=/: }") <(sed 's/ (.*//' /tmp/read) || return
  wait_until 2 frames_are "$2" || { echo "$1: expected $2, received $(new_frames)"; return 1; }
}
# The driver keeps what was set for the controls that it has read before, and reads the others; so all are read first.
limits_and_defaults() {
  local settings frames count=0
  v4l2-ctl -d "$(node)" --list-ctrls >/dev/null || return
  while IFS=$'\t' read -r settings frames; do
    set_and_read "$settings" "$frames" || { echo "$settings: $(tail -n 1 /tmp/said)"; return 1; }
    count=$((count + 1))
  done < <(documented set)
  [ $count -gt 0 ] && echo "$count settings read back, each with its frames"
}

refused_by_linux() {
  local after setting error count=0
  while IFS=$'\t' read -r after setting error; do
    [ "$after" = - ] || set_controls "$after" || return
    if v4l2-ctl -d "$(node)" --set-ctrl="$setting" >/tmp/refused 2>&1; then
      echo "$setting was taken"
      return 1
    fi
    grep -q "$error" /tmp/refused || { echo "$setting: $(tail -n 1 /tmp/refused), not $error"; return 1; }
    count=$((count + 1))
  done < <(documented refused)
  [ $count -gt 0 ] && echo "$count settings"
}

# A driver that is bound again asks the camera again: some controls keep nothing. The head may still be moving.
bind_anew() {
  local driver=/sys/bus/usb/drivers/uvcvideo interface
  interface=$(usb_interface)
  echo -n "$interface" >$driver/unbind
  echo -n "$interface" >$driver/bind
  wait_until 20 node_answers
}
read_anew() {
  local name range reads expected count=0
  bind_anew || return
  while IFS=$'\t' read -r name range reads; do
    case $reads in
      inquiry*) continue ;;
      always*) expected=${reads#always } ;;
      *) expected=${value_of[$name]} ;;
    esac
    [ "$(read_controls "$name" | sed 's/ (.*//')" = "$name: $expected" ] ||
      { echo "$(read_controls "$name"), not $expected"; return 1; }
    count=$((count + 1))
  done < <(documented shows)
  [ $count -gt 0 ] && echo "$count controls"
}

# The driver reaches the selectors 1 to 28, which the descriptors announce.
xu() { "$build/xu_query" "$(node)" 3 "$@"; }
# unit_answers_at SELECTOR LENGTH MIN MAX RES DEF: the limits are the answers' first bytes; "-" accepts any.
unit_answers_at() {
  local selector=$1 length=$2 answers limit i
  shift 2
  mapfile -t answers < <(xu "$selector" len info min max res def)
  [ "${answers[0]}" = "$(printf '%02x 00' "$length")" ] && [ "${answers[1]}" = 03 ] || return
  for ((i = 2; i < 6; i++)); do
    limit=$1
    shift
    [ "$limit" = - ] || [ "$((16#${answers[i]:0:2}))" = "$limit" ] || return
  done
}
unit_answers() {
  local selectors numbers selector count=0
  while IFS=$'\t' read -r selectors numbers; do
    for selector in ${selectors//,/}; do
      [[ $selector != 0 && $selector != *..* ]] || continue
      # shellcheck disable=SC2086
      unit_answers_at "$selector" $numbers ||
        { echo "selector $selector, not $numbers: $(xu "$selector" len info min max res def | xargs)"; return 1; }
      count=$((count + 1))
    done
  done < <(documented unit)
  [ $count -gt 0 ] && echo "$count selectors: length, info and limits as documented"
}

# unit_reads SELECTOR BYTES
unit_reads() { [ "$(xu "$1" cur)" = "${2,,}" ] || { echo "selector $1 reads $(xu "$1" cur), not $2"; return 1; }; }
server_received() { grep -q "$1" $logs/server.log; }
# Rate control, its refusal, the key-frame interval of a running stream, a byte for the encoder, the build's version.
unit_obeys() {
  unit_reads 9 "$(documented record)" || return
  begin_stream MJPG 1280x720 || return
  xu 16 set 01 02 00 00 00 50 00 00 && unit_reads 16 "01 02 00 00 00 50 00 00" || return
  xu 16 set 00 00 00 30 3c 00 00 00 && unit_reads 16 "01 02 00 00 00 50 00 00" || return
  end_stream
  begin_stream H264 1280x720 || return
  xu 3 set 1e 00 00 && wait_until 2 server_received "velto 10 O .* 1 30 12288 0 0" || return
  xu 1 set 07 && unit_reads 1 07 && wait_until 2 server_received "velto 12 .*7" || return
  end_stream
  echo "rate control taken and refused, key-frame interval, byte for the encoder, version record"
}

take_picture() {
  timeout $((30 * patience)) v4l2-ctl -d "$(node)" --set-fmt-video=width=1280,height=720,pixelformat=MJPG --stream-mmap \
    --stream-skip=6 --stream-count=1 --stream-to="$1" >/tmp/picture.txt 2>&1
}
step_seen() { take_picture /tmp/after.jpg && "$build/picture_step" "$1" /tmp/before.jpg /tmp/after.jpg >/tmp/measured; }
# Every step starts with the head at rest; the next picture is taken once the head has stopped, and is compared
# with the last.
seen_in_the_picture() {
  local name setting count=0
  while IFS=$'\t' read -r name setting; do
    take_picture /tmp/before.jpg && set_controls "$setting" || return
    wait_until 20 step_seen "$name" || { cat /tmp/measured; return 1; }
    cat /tmp/measured
    sleep 1
    count=$((count + 1))
  done < <("$build/picture_step" list)
  [ $count -gt 0 ] && echo "$count steps seen: brightness, contrast, zoom, pan, tilt"
}
