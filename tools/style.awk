# Reports what breaks the rules of style that clang-format does not know: FILE:LINE: what to write instead.
# Strings and comments are taken out of a line before its code is looked at.

function report(line, what) { print FILENAME ":" line ": " what; found = 1 }

# A block of comment lines has ended: its last line must not hold one or two words that belong to the line before.
function end_block() {
  if (lines > 1 && last !~ /[^ ] +[^ ]+ +[^ ]/ && before !~ /[.:;!?,]$/)
    report(last_line, "wrap the comment again: its last line is too short")
  lines = 0
}

function take_comment(text) {
  before = last
  last = text
  last_line = FNR
  ++lines
}

FNR == 1 { end_block(); previous = ""; column = 0 }

{
  code = $0
  gsub(/"(\\.|[^"\\])*"/, "\"\"", code)
  comment = ""
  if ((at = index(code, "//")) > 0) {
    comment = substr(code, at)
    code = substr(code, 1, at - 1)
  }
  text = comment
  sub(/^\/\/\/?<? */, "", text)
  sub(/ +$/, "", code)
  if (FILENAME ~ /\.cpp$/ && comment ~ /^\/\/\//)
    report(FNR, "write // here; /// documents declarations in headers")

  if (code == "" && comment != "") {
    if (column > 1 && at == column) report(FNR, "put a comment of several lines above the line that it belongs to")
    else column = 0
    marker = comment ~ /^\/\/\//
    if (lines > 0 && marker != last_marker) end_block()
    last_marker = marker
    take_comment(text)
    next
  }
  end_block()
  column = comment == "" ? 0 : at
  if (comment != "" && code ~ /^ +[^ ]+;$/ && previous ~ /[A-Za-z0-9_>*&=]$/ && previous !~ /(else|do)$/)
    report(FNR, "put the comment above the declaration, which it tears apart")
  if (code ~ /(^|[^A-Za-z0-9_])sizeof [A-Za-z_*]/) report(FNR, "write sizeof(x)")
  if (code ~ /((^|[;{)]|else) *[A-Za-z_][][A-Za-z0-9_.>:()-]*(\+\+|--);)/ ||
      code ~ /^ *for \(.*;.*;.*[A-Za-z0-9_\])](\+\+|--)[,)]/)
    report(FNR, "write ++i")
  if (code ~ /^(\[\[[^]]*\]\] )?static /) report(FNR, "put it into namespace { instead of making it static")
  previous = code
}

END { end_block(); exit found }
