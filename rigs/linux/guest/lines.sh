# The lines to copy and paste of docs/controls.md.
start_camera
mapfile -t lines < <(grep -v '^#' "$bed/../../docs/host-lines.txt")
for line in "${lines[@]}"; do check "${line%% *} ${line##*[ =]}" line_works "$line"; done
check "service ends" end_service
