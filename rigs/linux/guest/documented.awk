# What docs/controls.md says about the controls that Linux can reach, one line each, with tabs between its parts:
#   shows NAME RANGE READS                  a control as Linux lists it, and what its GET_CUR answers
#   set NAME=VALUE[,NAME=VALUE] EFFECT      what setting it makes the server receive
#   refused AFTER SETTING ERROR             a setting that Linux refuses, after another one or "-"
#   unit SELECTORS LENGTH MIN MAX RES DEF   of the extension unit
#   record BYTES                            the build's version record
BEGIN { FS = " *[|] *"; OFS = "\t" }
/^## / { section = $0 }

$4 ~ /^`[a-z_]*` [(]/ {
  if ($2 != "") { control = $2; reads = $3 }
  name = substr($4, 2, index($4, "` ") - 2)
  names[control] = names[control] " " name
  range[name] = substr($4, length(name) + 4)
  sub(/;.*/, "", range[name])
  print "shows", name, range[name], reads
}

function allowed(name, value,   limits) {
  if (range[name] ~ /^.menu/) return range[name] ~ "[ )]" value ":"
  if (range[name] ~ /^.bool/) return value <= 1
  split(substr(range[name], 7), limits, /[.][.]|,/)
  return value >= limits[1] + 0 && value <= limits[2] + 0
}
function motion(direction, speed) { return direction == 255 ? -speed : direction * speed }
# Speeds do not matter; Linux offers fewer backwards than forwards.
function offered(name, speed) { return speed < 0 && allowed(name, -1) ? -1 : speed }

$2 in names && NF == 6 {
  count = split($3, value, ", ")
  split(names[$2], each, " ")
  if (each[1] == "zoom_continuous") value[count = 1] = motion(value[1], value[3])
  if (each[1] == "pan_speed") {
    value[1] = offered(each[1], motion(value[1], value[2]))
    value[count = 2] = offered(each[2], motion(value[3], value[4]))
  }
  settings = ""
  for (i = 1; i <= count; i++) {
    if (!allowed(each[i], value[i])) next
    settings = settings (i > 1 ? "," : "") each[i] "=" value[i]
  }
  gsub(/`|nothing|refused.*/, "", $5)
  print "set", settings, $5
}

section ~ /refuses/ && $3 ~ /=/ {
  gsub(/`/, "")
  print "refused", $2, $3, $4
}

section ~ /Extension/ && $5 ~ /status/ { print "unit", $2, $4, $6, $7, $8, $9 }
/version .* of / && NF == 4 { print "record", $3 }
