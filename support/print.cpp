#include "support/print.h"

#include <poll.h>
#include <unistd.h>

#include <cstdarg>
#include <cstdio>

#include "elog/elog.h"
#include "platform/output.h"

Word print_level{3};

namespace print {
namespace {

[[gnu::format(printf, 3, 0)]] void log(u8 level, const Place& place, const char* format, va_list arguments) {
  elog_voutput(level, "NO_TAG", place.file, place.function, place.line, format, arguments);
}

// Flushes what the libraries have printed, unless writing it might wait.
void flush_standard_output() {
  pollfd ready = {STDOUT_FILENO, POLLOUT, 0};
  if (poll(&ready, 1, 0) > 0) std::fflush(stdout);
}

}  // namespace

void error(const Place& place, const char* format, ...) {
  va_list arguments;
  va_start(arguments, format);
  OutputText text;
  text.add("\033[0;31m[%s]-%d: \033[0m", place.function, static_cast<int>(place.line));
  text.add_list(format, arguments);
  text.send(STDERR_FILENO);
  log(ELOG_LVL_WARN, place, format, arguments);
  flush_standard_output();
  va_end(arguments);
}

void info(const Place& place, const char* format, ...) {
  va_list arguments;
  va_start(arguments, format);
  OutputText text;
  text.add_list(format, arguments);
  text.send(STDERR_FILENO);
  log(ELOG_LVL_INFO, place, format, arguments);
  va_end(arguments);
}

void debug(const Place& place, const char* format, ...) {
  va_list arguments;
  va_start(arguments, format);
  OutputText text;
  text.add("\033[0;36m");
  text.add_list(format, arguments);
  text.add("\033[0m");
  text.send(STDERR_FILENO);
  log(ELOG_LVL_DEBUG, place, format, arguments);
  va_end(arguments);
}

}  // namespace print
