// The print forms: one line to standard error (output.h) and one to the logger, if the print level allows it.
#pragma once

#include "common/word.h"

/// How much the process prints: a form prints and logs when print_level is at least its own level (2 for
/// error, 3 for info, 4 for debug). Set from the print configuration; may change at any time.
extern Word print_level;

namespace print {

/// The place of a print call: the three facts that a log record carries.
struct Place {
  const char* file;  ///< kPrintFile of the source
  const char* function;
  long line;
};

/// The error form: red function-and-line prefix and the message on standard error, a log record at level
/// warn, then a flush of standard output if that will not wait.
[[gnu::format(printf, 2, 3)]] void error(const Place& place, const char* format, ...);
/// The info form: the message on standard error and a log record at level info.
[[gnu::format(printf, 2, 3)]] void info(const Place& place, const char* format, ...);
/// The debug form: the message in cyan on standard error and a log record at level debug.
[[gnu::format(printf, 2, 3)]] void debug(const Place& place, const char* format, ...);

}  // namespace print

// A source file that prints defines the name that its log records carry, before its first print:
//   static constexpr char kPrintFile[] = "uvc_class.c";
// The arguments are evaluated only when the level allows the form.
#define PRINT_ERROR_AT(line, ...) \
  (print_level >= 2 ? print::error({kPrintFile, __func__, line}, __VA_ARGS__) : void())
#define PRINT_INFO_AT(line, ...) \
  (print_level >= 3 ? print::info({kPrintFile, __func__, line}, __VA_ARGS__) : void())
#define PRINT_DEBUG_AT(line, ...) \
  (print_level >= 4 ? print::debug({kPrintFile, __func__, line}, __VA_ARGS__) : void())
// For a message that carries the name of another function than the one that prints it.
#define PRINT_ERROR_IN(function, ...) \
  (print_level >= 2 ? print::error({kPrintFile, function, __LINE__}, __VA_ARGS__) : void())
#define PRINT_ERROR(...) PRINT_ERROR_AT(__LINE__, __VA_ARGS__)
#define PRINT_INFO(...) PRINT_INFO_AT(__LINE__, __VA_ARGS__)
#define PRINT_DEBUG(...) PRINT_DEBUG_AT(__LINE__, __VA_ARGS__)
