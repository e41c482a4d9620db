// The logger: one call becomes one line of at most 512 bytes, is filtered, and goes to the sinks of
// elog_port.h under one process-wide lock. Any thread may log; nothing here allocates. Until
// log_module_init() and after log_module_exit() lines are dropped. Sink troubles are the port's; no call here
// reports them. A broken precondition is an assertion (elog_assert.h): without a hook it logs and never
// returns.
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

/// What stands before the message, one bit each, per level.
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

/// Starts the logger: lines of `level` (its low byte) and below go to the log collector's queue. Returns 0.
int log_module_init(u32 level);
/// Stops the logger. Returns 0.
int log_module_exit();
/// Sets the level filter to the low byte of `level`.
void log_module_set_level(u32 level);
/// Non-zero: lines also go to standard output.
void log_module_set_console(int enabled);

/// One line: the items that the level's mask asks for, then the message and a newline of the logger's own.
/// A line that is too long is cut to 511 characters and the newline. `line` shows at most 4 characters.
[[gnu::format(printf, 6, 7)]] void elog_output(u8 level, const char* tag, const char* file, const char* func,
                                               long line, const char* format, ...);
[[gnu::format(printf, 6, 0)]] void elog_voutput(u8 level, const char* tag, const char* file, const char* func,
                                                long line, const char* format, va_list args);
/// The text as it is: no items, no newline, no tag and keyword filters. The record carries level 4.
[[gnu::format(printf, 2, 3)]] void elog_raw_output(u8 level, const char* format, ...);
/// `width` bytes a line, in hexadecimal and as characters; the tag filter looks at `name`.
void elog_hexdump(u8 level, const char* name, u8 width, const void* buf, u16 size);

// Life cycle. The configurations may be null: that sink stays off.

/// Does nothing when already initialised. Returns the port's result.
int elog_init(const ElogFileCfg* file_cfg, const ElogMsgqCfg* msgq_cfg);
void elog_deinit();
void elog_start();
void elog_stop();
void elog_set_output_enabled(bool enabled);
bool elog_get_output_enabled();

// Filters and line layout.

void elog_set_fmt(u8 level, u32 mask);
/// Lines above `level` are dropped.
void elog_set_filter_lvl(u8 level);
/// Lines whose tag does not contain `tag` are dropped; of longer texts the first 16 characters count.
void elog_set_filter_tag(const char* tag);
/// Finished lines that do not contain `keyword` are dropped; of longer texts the first 16 characters count.
void elog_set_filter_kw(const char* keyword);
void elog_set_filter(u8 level, const char* tag, const char* keyword);
/// A level filter for one tag, beside the global one; level 5 removes it. A sixth tag is ignored.
void elog_set_filter_tag_lvl(const char* tag, u8 level);
/// The tag's level filter; 5 when there is none and before elog_init().
u8 elog_get_filter_tag_lvl(const char* tag);

// The output lock, which keeps the lines of several threads apart.

/// Switches locking. What was locked under the other setting is taken or released now, but for the calling
/// thread: a lock that another one took first stays with that one, however often this is switched.
void elog_output_lock_enabled(bool enabled);
void elog_output_lock();
void elog_output_unlock();

// Reading lines back.

/// The level that the first character of `log` names ("AEWIDV"), or -1.
i8 elog_find_lvl(const char* log);
/// The tag of a line of level `lvl`, its length in `tag_len`; null when no space follows within 16
/// characters.
const char* elog_find_tag(const char* log, u8 lvl, std::size_t* tag_len);
