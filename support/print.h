// The print forms: one line each to standard error (output.h) and to the logger, gated by the print level.
#pragma once

#include "common/word.h"

/// How much the process tells: a form of level L prints and logs when print_level >= L (error form 2, info 3,
/// debug 4). Set from the print configuration; may change at any time.
extern Word print_level;

namespace print {

/// Where a print call stands: the three facts that a log record carries.
struct Place {
  const char* file;  ///< name of the module's source, as the log calls carry it
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

// Each source file that prints says under which name, before its first print:
//   static constexpr char kPrintFile[] = "uvc_class.c";
// The arguments are evaluated only when the level admits the form.
#define PRINT_ERROR_AT(line, ...) \
  (print_level >= 2 ? print::error({kPrintFile, __func__, line}, __VA_ARGS__) : void())
#define PRINT_INFO_AT(line, ...) \
  (print_level >= 3 ? print::info({kPrintFile, __func__, line}, __VA_ARGS__) : void())
#define PRINT_DEBUG_AT(line, ...) \
  (print_level >= 4 ? print::debug({kPrintFile, __func__, line}, __VA_ARGS__) : void())
// For a message whose text carries the name of another function than the one that it stands in.
#define PRINT_ERROR_IN(function, ...) \
  (print_level >= 2 ? print::error({kPrintFile, function, __LINE__}, __VA_ARGS__) : void())
#define PRINT_ERROR(...) PRINT_ERROR_AT(__LINE__, __VA_ARGS__)
#define PRINT_INFO(...) PRINT_INFO_AT(__LINE__, __VA_ARGS__)
#define PRINT_DEBUG(...) PRINT_DEBUG_AT(__LINE__, __VA_ARGS__)
