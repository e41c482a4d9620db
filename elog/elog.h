// The logger. One call becomes one line of at most 512 bytes, which is filtered and then handed to the
// sinks of elog_port.h under one process-wide lock. Any thread may log; nothing here allocates. Lines are
// dropped before log_module_init() and after log_module_exit(). No call here reports a failing sink: that
// is the port's business. A broken precondition is an assertion (elog_assert.h): without a hook it logs
// and never returns.
#pragma once

#include <cstdarg>
#include <cstddef>

#include "common/bytes.h"

struct ElogFileCfg;
struct ElogMsgqCfg;

/// Severity of a line; lower is more severe.
enum ElogLevel : u8 {
  ELOG_LVL_ASSERT = 0,
  ELOG_LVL_ERROR = 1,
  ELOG_LVL_WARN = 2,
  ELOG_LVL_INFO = 3,
  ELOG_LVL_DEBUG = 4,
  ELOG_LVL_VERBOSE = 5,
  ELOG_LVL_TOTAL_NUM = 6,
  ELOG_FILTER_LVL_SILENT = ELOG_LVL_ASSERT,
  ELOG_FILTER_LVL_ALL = ELOG_LVL_VERBOSE,
};

/// The items before the message, one bit each; every level has a mask of its own.
enum ElogFormat : u32 {
  ELOG_FMT_LVL = 0x01,     ///< level text, such as "[W]"
  ELOG_FMT_TAG = 0x02,     ///< accepted, never printed
  ELOG_FMT_TIME = 0x04,    ///< local time with microseconds
  ELOG_FMT_P_INFO = 0x08,  ///< process id
  ELOG_FMT_T_INFO = 0x10,  ///< thread id
  ELOG_FMT_DIR = 0x20,     ///< source file name as passed
  ELOG_FMT_FUNC = 0x40,
  ELOG_FMT_LINE = 0x80,
};

constexpr std::size_t ELOG_LINE_BUF_SIZE = 512;
constexpr std::size_t ELOG_FILTER_TAG_MAX_LEN = 16;
constexpr std::size_t ELOG_FILTER_KW_MAX_LEN = 16;
constexpr std::size_t ELOG_FILTER_TAG_LVL_MAX_NUM = 5;

// This system's use of the logger.

/// Starts the logger: lines up to the level in the low byte of `level` go to the log collector's
/// queue. Returns 0.
int log_module_init(u32 level);
/// Stops the logger. Returns 0.
int log_module_exit();
/// Sets the level filter to the low byte of `level`.
void log_module_set_level(u32 level);
/// If `enabled` is not 0, lines go to standard output as well.
void log_module_set_console(int enabled);

/// Logs one line: the items that the level's mask selects, then the message, then a newline that the
/// logger adds. A line that is too long is cut to 511 characters and the newline. At most 4 characters of
/// `line` are shown.
[[gnu::format(printf, 6, 7)]] void elog_output(u8 level, const char* tag, const char* file, const char* func,
                                               long line, const char* format, ...);
[[gnu::format(printf, 6, 0)]] void elog_voutput(u8 level, const char* tag, const char* file, const char* func,
                                                long line, const char* format, va_list args);
/// Logs the text as it is: without items, without an added newline, without the tag and keyword filters. Its
/// record carries level 4.
[[gnu::format(printf, 2, 3)]] void elog_raw_output(u8 level, const char* format, ...);
/// Logs `width` bytes per line, in hexadecimal and as characters. The tag filter is applied to `name`.
void elog_hexdump(u8 level, const char* name, u8 width, const void* buf, u16 size);

// Life cycle. Either configuration may be null; that sink then stays off.

/// Does nothing if the logger is initialised already. Returns the port's result.
int elog_init(const ElogFileCfg* file_cfg, const ElogMsgqCfg* msgq_cfg);
void elog_deinit();
void elog_start();
void elog_stop();
void elog_set_output_enabled(bool enabled);
bool elog_get_output_enabled();

// Filters and line layout.

void elog_set_fmt(u8 level, u32 mask);
/// Drops lines above `level`.
void elog_set_filter_lvl(u8 level);
/// Drops lines whose tag does not contain `tag`. Only the first 16 characters of `tag` count.
void elog_set_filter_tag(const char* tag);
/// Drops finished lines that do not contain `keyword`. Only the first 16 characters of `keyword` count.
void elog_set_filter_kw(const char* keyword);
void elog_set_filter(u8 level, const char* tag, const char* keyword);
/// Sets a level filter for one tag, in addition to the global one. Level 5 removes it. A sixth
/// tag is ignored.
void elog_set_filter_tag_lvl(const char* tag, u8 level);
/// Returns the tag's level filter: 5 if it has none, and before elog_init().
u8 elog_get_filter_tag_lvl(const char* tag);

// The output lock, which keeps the lines of several threads apart.

/// Switches locking. What the calling thread locked under the other setting is taken or released now. A lock
/// that another thread took first stays with that thread, however often this is called.
void elog_output_lock_enabled(bool enabled);
void elog_output_lock();
void elog_output_unlock();

// Reading lines back.

/// Returns the level that the first character of `log` names ("AEWIDV"), or -1.
i8 elog_find_lvl(const char* log);
/// Returns the tag of a line of level `lvl` and stores its length in `tag_len`. Returns null if no space
/// follows within 16 characters.
const char* elog_find_tag(const char* log, u8 lvl, std::size_t* tag_len);
