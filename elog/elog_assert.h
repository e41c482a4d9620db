// Assertions of the logger's own modules. The function name and the line number are part of the text that the
// collector gets, so the line number is a fixed one. Each source file names itself for its checks:
//   constexpr char kElogFile[] = "elog_utils";
// The code after a check must stay inside its objects even if the check failed, because a hook lets it go on.
#pragma once

using ElogAssertHook = void (*)(const char* expression, const char* function, long line);

/// From now on, a failed check calls `hook` and goes on. The hook must not log, since the check may
/// have failed under the output lock. With null, as at the start, a failed check logs at level 0 and
/// spins for ever.
void elog_assert_set_hook(ElogAssertHook hook);

/// Called by a failed check.
void elog_assert_failed(const char* expression, const char* file, const char* function, long line);

#define ELOG_ASSERT_TEXT(expression, text, line) \
  ((expression) ? void() : elog_assert_failed(text, kElogFile, __func__, line))
#define ELOG_ASSERT(expression, line) ELOG_ASSERT_TEXT(expression, #expression, line)
