// Assertions of the logger's own modules. The function name and the line number are part of the text that the
// collector gets, so the line number is a fixed one. Each source file says under which name it checks:
//   static constexpr char kElogFile[] = "elog_utils";
// What follows a check must stay inside its objects even where the check failed: a hook lets it go on.
#pragma once

using ElogAssertHook = void (*)(const char* expression, const char* function, long line);

/// From now on failed checks call `hook` and go on. The hook must not log: the check may have failed
/// under the output lock. Null, as at the start: failed checks log at level 0 and spin.
void elog_assert_set_hook(ElogAssertHook hook);

/// What a failed check does.
void elog_assert_failed(const char* expression, const char* file, const char* function, long line);

#define ELOG_ASSERT_TEXT(expression, text, line) \
  ((expression) ? void() : elog_assert_failed(text, kElogFile, __func__, line))
#define ELOG_ASSERT(expression, line) ELOG_ASSERT_TEXT(expression, #expression, line)
