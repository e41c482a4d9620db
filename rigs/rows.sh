# Sourced by the rigs: the rows of their tables, as wide as the terminal, 80 columns at least.

# wrapped LEFT TEXT: prints TEXT beside LEFT; what does not fit into the line goes on below TEXT.
wrapped() {
  local left=$1 line width=${COLUMNS:-80}
  [ ! -t 1 ] || width=$(stty size <&1 | cut -d' ' -f2)
  [ "$width" -ge 80 ] || width=80
  while IFS= read -r line; do
    printf '%s%s\n' "$left" "${line% }"
    left=$(printf '%*s' ${#left} '')
  done < <(fold -s -w $((width - ${#left})) <<<"$2")
}
