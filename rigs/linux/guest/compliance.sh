# v4l2-compliance, including streams. Its failures must be those that docs/deliberate.md lists with their causes.
listed_failures() {
  sed -nE '/^## Failures of v4l2-compliance/,/^## [^F]/ s/^\| `([^`]*)` \|.*/\1/p' "$bed/../../docs/deliberate.md"
}
failures() { sed -nE 's/^.*\btest (.*): FAIL$/\1/p' $out/v4l2-compliance.txt; }
compliance() {
  v4l2-compliance -d "$(node)" -s >$out/v4l2-compliance.txt 2>&1
  diff <(listed_failures | sort) <(failures | sort) || return
  tail -n 1 $out/v4l2-compliance.txt
}

start_camera
check "v4l2-compliance" compliance
check "service ends" end_service
