#include "support/print.h"

#include <cstdarg>
#include <cstdio>

#include "elog/elog.h"

Word print_level{3};

namespace print {
namespace {

[[gnu::format(printf, 3, 0)]] void log(u8 level, const Place& place, const char* format, va_list arguments) {
  elog_voutput(level, "NO_TAG", place.file, place.function, place.line, format, arguments);
}

[[gnu::format(printf, 1, 0)]] void to_stderr(const char* format, va_list arguments) {
  va_list copy;
  va_copy(copy, arguments);
  std::vfprintf(stderr, format, copy);
  va_end(copy);
}

}  // namespace

void error(const Place& place, const char* format, ...) {
  va_list arguments;
  va_start(arguments, format);
  std::fprintf(stderr, "\033[0;31m[%s]-%d: \033[0m", place.function, static_cast<int>(place.line));
  to_stderr(format, arguments);
  log(ELOG_LVL_WARN, place, format, arguments);
  std::fflush(stdout);
  va_end(arguments);
}

void info(const Place& place, const char* format, ...) {
  va_list arguments;
  va_start(arguments, format);
  to_stderr(format, arguments);
  log(ELOG_LVL_INFO, place, format, arguments);
  va_end(arguments);
}

void debug(const Place& place, const char* format, ...) {
  va_list arguments;
  va_start(arguments, format);
  std::fputs("\033[0;36m", stderr);
  to_stderr(format, arguments);
  std::fputs("\033[0m", stderr);
  log(ELOG_LVL_DEBUG, place, format, arguments);
  va_end(arguments);
}

}  // namespace print
