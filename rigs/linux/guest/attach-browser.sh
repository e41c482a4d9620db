# A page in Chromium opens the camera by getUserMedia. The pictures that it draws must be pictures that the camera made.
page_ends() { grep -q '"page ends' $out/chromium.txt; }
page_draws() {
  local picture counter last=0 pictures=()
  chromium-headless-shell --no-sandbox --disable-gpu --single-process --no-zygote --no-first-run --disable-dev-shm-usage \
    --disable-extensions --disable-background-networking --use-fake-ui-for-media-stream --user-data-dir=/tmp/chromium \
    --enable-logging=stderr "file://$bed/guest/camera.html" >$out/chromium.txt 2>&1 &
  wait_until 240 page_ends
  kill $! && wait $!
  for picture in $(sed -n 's/.*"data:image\/jpeg;base64,\([^"]*\)".*/\1/p' $out/chromium.txt); do
    base64 -d <<<"$picture" >/tmp/picture.jpg
    counter=$("$build/picture_step" counter /tmp/picture.jpg) && grep "^$counter " $logs/made.log || return
    [ "$counter" -gt $last ] || { echo "picture $counter after $last"; return 1; }
    pictures+=("$((last = counter))")
  done
  grep -q '"page ends"' $out/chromium.txt || { grep -o '"page ends.*"' $out/chromium.txt; return 1; }
  echo "pictures ${pictures[*]}"
  [ ${#pictures[@]} = 3 ]
}

start_camera
check "getUserMedia in Chromium" page_draws
check "service ends" end_service
