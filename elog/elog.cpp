#include "elog/elog.h"

#include <string.h>

#include <algorithm>
#include <atomic>
#include <charconv>
#include <cstdio>
#include <cstring>
#include <span>
#include <string_view>

#include "elog/elog_assert.h"
#include "elog/elog_line.h"
#include "elog/elog_port.h"
#include "elog/elog_record.h"

namespace {

constexpr char kElogFile[] = "elog";
constexpr char kVersion[] = "2.2.99";
constexpr std::string_view kLevelText[ELOG_LVL_TOTAL_NUM] = {"[A]", "[E]", "[W]", "[I]", "[D]", "[V]"};
constexpr std::size_t kLevelTextSize = 3;

// A field that is read before the output lock is taken: whole values, in no guaranteed order.
template <typename T>
class Loose {
 public:
  operator T() const { return value_.load(std::memory_order_relaxed); }
  Loose& operator=(T value) {
    value_.store(value, std::memory_order_relaxed);
    return *this;
  }

 private:
  std::atomic<T> value_{};
};

// The first 16 characters of a text that lines must contain. An empty text lets every line pass.
class FilterText {
 public:
  void set(const char* text) {
    for (std::size_t i = 0; i < ELOG_FILTER_TAG_MAX_LEN; ++i) {
      chars_[i] = *text;
      if (*text != '\0') ++text;
    }
  }
  bool empty() const { return chars_[0] == '\0'; }
  bool occurs_in(const char* text) const {
    if (empty()) return true;
    char wanted[ELOG_FILTER_TAG_MAX_LEN + 1];
    std::copy(std::begin(chars_), std::end(chars_), wanted);
    return text && std::strstr(text, wanted);
  }

 private:
  Loose<char> chars_[ELOG_FILTER_TAG_MAX_LEN + 1];
};
static_assert(ELOG_FILTER_KW_MAX_LEN == ELOG_FILTER_TAG_MAX_LEN);

// Used under the output lock.
struct TagLevel {
  u8 level;
  char tag[ELOG_FILTER_TAG_MAX_LEN + 1];
  bool tag_use_flag;
};

struct Elog {
  struct {
    Loose<u8> level;
    FilterText tag;
    FilterText keyword;
    TagLevel tag_lvl[ELOG_FILTER_TAG_LVL_MAX_NUM];
    Loose<bool> tag_lvl_used;  // true once any entry was set since elog_init()
  } filter;
  Loose<u32> enabled_fmt_set[ELOG_LVL_TOTAL_NUM];
  Loose<bool> init_ok;
  Loose<bool> output_enabled;
  Loose<bool> output_lock_enabled;
  Loose<bool> output_is_locked_before_enable;
  Loose<bool> output_is_locked_before_disable;
};

// Takes the output lock by `lock` and holds it for its lifetime.
struct OutputLock {
  explicit OutputLock(void (*lock)()) { lock(); }
  ~OutputLock() { elog_output_unlock(); }
  OutputLock(const OutputLock&) = delete;
};

Elog elog;
Loose<ElogAssertHook> elog_assert_hook;

}  // namespace

void elog_assert_set_hook(ElogAssertHook hook) { elog_assert_hook = hook; }

void elog_assert_failed(const char* expression, const char* file, const char* function, long line) {
  static thread_local bool reporting;
  if (const ElogAssertHook hook = elog_assert_hook) return hook(expression, function, line);
  // A check that fails in a sink must not be reported through that sink again and again.
  if (reporting) return;
  reporting = true;
  elog_output(ELOG_LVL_ASSERT, "elog", file, function, line, "(%s) has assert failed at %s:%ld.", expression,
              function, line);
  // Deliberate: the thread never returns from here.
  for (volatile bool spinning = true; spinning;) {
  }
}

int log_module_init(u32 level) {
  const ElogMsgqCfg msgq_cfg = {kElogQueueType, kElogQueueKey, true};
  elog_init(nullptr, &msgq_cfg);
  constexpr u32 kBrief = ELOG_FMT_LVL | ELOG_FMT_TIME | ELOG_FMT_P_INFO;
  for (u8 i = ELOG_LVL_ASSERT; i <= ELOG_LVL_WARN; ++i)
    elog_set_fmt(i, kBrief | ELOG_FMT_FUNC | ELOG_FMT_LINE);
  for (u8 i = ELOG_LVL_INFO; i <= ELOG_LVL_VERBOSE; ++i) elog_set_fmt(i, kBrief);
  log_module_set_level(level);
  elog_start();
  return 0;
}

int log_module_exit() {
  elog_stop();
  elog_deinit();
  return 0;
}

void log_module_set_level(u32 level) { elog_set_filter_lvl(static_cast<u8>(level)); }

void log_module_set_console(int enabled) { elog_port_set_console(enabled != 0); }

int elog_init(const ElogFileCfg* file_cfg, const ElogMsgqCfg* msgq_cfg) {
  if (elog.init_ok) return 0;
  if (const int error = elog_port_init(file_cfg, msgq_cfg)) return error;
  elog_output_lock_enabled(true);
  elog.output_is_locked_before_enable = false;
  elog.output_is_locked_before_disable = false;
  elog.filter.level = ELOG_FILTER_LVL_ALL;
  for (TagLevel& entry : elog.filter.tag_lvl) entry = {};
  elog.filter.tag_lvl_used = false;
  elog.init_ok = true;
  return 0;
}

void elog_deinit() {
  if (!elog.init_ok) return;
  elog_port_deinit();
  elog.init_ok = false;
}

void elog_start() {
  if (elog.init_ok) elog.output_enabled = true;
}

void elog_stop() {
  if (!elog.init_ok) return;
  // Deliberate: output is already off, so the farewell is always dropped.
  elog.output_enabled = false;
  elog_output(ELOG_LVL_INFO, "elog", kElogFile, __func__, 271, "elog V%s is deinitialize success.", kVersion);
}

void elog_set_output_enabled(bool enabled) { elog.output_enabled = enabled; }

bool elog_get_output_enabled() { return elog.output_enabled; }

void elog_output_lock() {
  if (elog.output_lock_enabled) {
    elog_port_output_lock();
    elog.output_is_locked_before_disable = true;
  } else {
    elog.output_is_locked_before_enable = true;
  }
}

void elog_output_unlock() {
  if (elog.output_lock_enabled) {
    elog.output_is_locked_before_disable = false;
    elog_port_output_unlock();
  } else {
    elog.output_is_locked_before_enable = false;
  }
}

void elog_output_lock_enabled(bool enabled) {
  elog.output_lock_enabled = enabled;
  if (!enabled || elog.output_is_locked_before_enable == elog.output_is_locked_before_disable) return;
  if (elog.output_is_locked_before_enable) {
    elog_port_output_lock();
  } else {
    elog_port_output_unlock();
  }
}

void elog_set_fmt(u8 level, u32 mask) {
  ELOG_ASSERT(level <= ELOG_LVL_VERBOSE, 322);
  if (level < ELOG_LVL_TOTAL_NUM) elog.enabled_fmt_set[level] = mask;
}

void elog_set_filter(u8 level, const char* tag, const char* keyword) {
  ELOG_ASSERT(level <= ELOG_LVL_VERBOSE, 335);
  elog_set_filter_lvl(level);
  elog_set_filter_tag(tag);
  elog_set_filter_kw(keyword);
}

void elog_set_filter_lvl(u8 level) {
  ELOG_ASSERT(level <= ELOG_LVL_VERBOSE, 348);
  elog.filter.level = level;
}

void elog_set_filter_tag(const char* tag) { elog.filter.tag.set(tag); }

void elog_set_filter_kw(const char* keyword) { elog.filter.keyword.set(keyword); }

namespace {

TagLevel* find_tag_level(const char* tag) {
  for (TagLevel& entry : elog.filter.tag_lvl) {
    if (entry.tag_use_flag && std::strncmp(entry.tag, tag, ELOG_FILTER_TAG_MAX_LEN) == 0) return &entry;
  }
  return nullptr;
}

void add_tag_level(const char* tag, u8 level) {
  for (TagLevel& entry : elog.filter.tag_lvl) {
    if (entry.tag_use_flag) continue;
    std::memcpy(entry.tag, tag, strnlen(tag, ELOG_FILTER_TAG_MAX_LEN));
    entry.level = level;
    entry.tag_use_flag = true;
    elog.filter.tag_lvl_used = true;
    return;
  }
}

}  // namespace

// Deliberate, here and below: the lock is taken whether or not locking is enabled, but released only if
// it is enabled.
void elog_set_filter_tag_lvl(const char* tag, u8 level) {
  ELOG_ASSERT(level <= ELOG_LVL_VERBOSE, 429);
  ELOG_ASSERT_TEXT(tag != nullptr, "tag != ((void *)0)", 430);
  if (!elog.init_ok || !tag) return;
  OutputLock lock(elog_port_output_lock);
  TagLevel* found = find_tag_level(tag);
  if (found && level == ELOG_FILTER_LVL_ALL) {
    *found = {};
  } else if (found) {
    found->level = level;
  } else if (level != ELOG_FILTER_LVL_ALL) {
    add_tag_level(tag, level);
  }
}

u8 elog_get_filter_tag_lvl(const char* tag) {
  ELOG_ASSERT_TEXT(tag != nullptr, "tag != ((void *)0)", 482);
  if (!elog.init_ok || !tag) return ELOG_FILTER_LVL_ALL;
  OutputLock lock(elog_port_output_lock);
  const TagLevel* found = find_tag_level(tag);
  return found ? found->level : u8{ELOG_FILTER_LVL_ALL};
}

namespace {

// If no tag filter is in use, there is no need to look for one under the lock.
bool passes_tag_filters(u8 level, const char* tag) {
  const auto& filter = elog.filter;
  if (!filter.tag_lvl_used && filter.tag.empty() && elog.output_lock_enabled && tag) {
    return level <= ELOG_FILTER_LVL_ALL;
  }
  return level <= elog_get_filter_tag_lvl(tag) && filter.tag.occurs_in(tag);
}

bool get_fmt_enabled(u8 level, u32 set) {
  ELOG_ASSERT(level <= ELOG_LVL_VERBOSE, 741);
  return level < ELOG_LVL_TOTAL_NUM && (elog.enabled_fmt_set[level] & set) != 0;
}

void append_time_block(ElogLine& out, u8 level) {
  const bool time = get_fmt_enabled(level, ELOG_FMT_TIME);
  const bool process = get_fmt_enabled(level, ELOG_FMT_P_INFO);
  const bool thread = get_fmt_enabled(level, ELOG_FMT_T_INFO);
  if (!time && !process && !thread) return;
  out.append('[');
  if (time) out.append({elog_port_get_time(), kElogTimeSize});
  if (time && (process || thread)) out.append(' ');
  if (process) out.append(elog_port_get_p_info());
  if (process && thread) out.append(' ');
  if (thread) out.append(elog_port_get_t_info());
  out.append(']');
}

// Deliberate: a line number shows its first four characters only.
void append_line_number(ElogLine& out, long line) {
  char text[24];
  const char* end = std::to_chars(text, text + sizeof(text), line).ptr;
  out.append({text, std::min<std::size_t>(end - text, 4)});
}

void append_location_block(ElogLine& out, u8 level, const char* file, const char* func, long line) {
  const bool dir = get_fmt_enabled(level, ELOG_FMT_DIR);
  const bool function = get_fmt_enabled(level, ELOG_FMT_FUNC);
  const bool number = get_fmt_enabled(level, ELOG_FMT_LINE);
  if (!dir && !function && !number) return;
  out.append('[');
  if (dir) out.append(file);
  if (dir && function) out.append(' ');
  if (function) out.append(func);
  if (number && (dir || function)) out.append(':');
  if (number) append_line_number(out, line);
  out.append(']');
}

}  // namespace

void elog_output(u8 level, const char* tag, const char* file, const char* func, long line, const char* format,
                 ...) {
  va_list args;
  va_start(args, format);
  elog_voutput(level, tag, file, func, line, format, args);
  va_end(args);
}

// Deliberate: the tag is filtered by but never printed, and a message that ends in a newline
// gets another one.
void elog_voutput(u8 level, const char* tag, const char* file, const char* func, long line,
                  const char* format, va_list args) {
  if (level > ELOG_LVL_VERBOSE) {
    elog_assert_failed("level <= ELOG_LVL_VERBOSE", kElogFile, "elog_output", 590);
  }
  if (!elog.output_enabled || level > elog.filter.level) return;
  if (!passes_tag_filters(level, tag)) return;

  ElogLine out(level);
  OutputLock lock(elog_output_lock);
  append_time_block(out, level);
  if (get_fmt_enabled(level, ELOG_FMT_LVL)) out.append(kLevelText[level]);
  append_location_block(out, level, file, func, line);
  out.print(ELOG_LINE_BUF_SIZE - 1, format, args);
  if (!elog.filter.keyword.empty() && !elog.filter.keyword.occurs_in(out.terminated())) return;
  out.append_newline();
  out.send();
}

void elog_raw_output(u8 level, const char* format, ...) {
  if (!elog.output_enabled || level > elog.filter.level) return;
  ElogLine out(ELOG_LVL_DEBUG);  // Deliberate: regardless of `level`
  OutputLock lock(elog_output_lock);
  va_list args;
  va_start(args, format);
  out.print(ELOG_LINE_BUF_SIZE, format, args);
  va_end(args);
  out.send();
}

namespace {

void append_hex_block(ElogLine& out, std::span<const u8> block, u8 width) {
  for (std::size_t j = 0; j < width; ++j) {
    char text[4] = "   ";
    if (j < block.size()) std::snprintf(text, sizeof(text), "%02X ", block[j]);
    out.append(text);
    if (j % 8 == 7) out.append(' ');
  }
  out.append("  ");
  for (const u8 byte : block) out.append(byte >= 0x20 && byte <= 0x7E ? static_cast<char>(byte) : '.');
}

}  // namespace

void elog_hexdump(u8 level, const char* name, u8 width, const void* buf, u16 size) {
  if (!elog.output_enabled || level > elog.filter.level || !elog.filter.tag.occurs_in(name)) return;
  if (width == 0) return;
  const std::span bytes(static_cast<const u8*>(buf), size);
  OutputLock lock(elog_output_lock);
  for (std::size_t i = 0; i < size; i += width) {
    ElogLine out(level);
    char range[24];
    std::snprintf(range, sizeof(range), ": %04zX-%04zX: ", i, i + width - 1);
    if (level < ELOG_LVL_TOTAL_NUM) out.append(kLevelText[level]);
    out.append("HEX ");
    out.append(name);
    out.append(range);
    append_hex_block(out, bytes.subspan(i, std::min<std::size_t>(width, size - i)), width);
    out.append_newline();
    out.send();
  }
}

// Deliberate: the program's own lines begin with "[" and so have no level here.
i8 elog_find_lvl(const char* log) {
  ELOG_ASSERT(log, 788);
  ELOG_ASSERT(elog.enabled_fmt_set[ELOG_LVL_ASSERT] & ELOG_FMT_LVL, 790);
  ELOG_ASSERT(elog.enabled_fmt_set[ELOG_LVL_ERROR] & ELOG_FMT_LVL, 791);
  ELOG_ASSERT(elog.enabled_fmt_set[ELOG_LVL_WARN] & ELOG_FMT_LVL, 792);
  ELOG_ASSERT(elog.enabled_fmt_set[ELOG_LVL_INFO] & ELOG_FMT_LVL, 793);
  ELOG_ASSERT(elog.enabled_fmt_set[ELOG_LVL_DEBUG] & ELOG_FMT_LVL, 794);
  ELOG_ASSERT(elog.enabled_fmt_set[ELOG_LVL_VERBOSE] & ELOG_FMT_LVL, 795);
  constexpr std::string_view kLetters = "AEWIDV";
  const std::size_t level = log && *log != '\0' ? kLetters.find(*log) : kLetters.npos;
  return level == kLetters.npos ? i8{-1} : static_cast<i8>(level);
}

const char* elog_find_tag(const char* log, u8 lvl, std::size_t* tag_len) {
  ELOG_ASSERT(log, 834);
  ELOG_ASSERT(tag_len, 835);
  ELOG_ASSERT(lvl < ELOG_LVL_TOTAL_NUM, 836);
  if (!log || !tag_len || lvl >= ELOG_LVL_TOTAL_NUM) return nullptr;
  ELOG_ASSERT(elog.enabled_fmt_set[lvl] & ELOG_FMT_TAG, 838);
  if (strnlen(log, kLevelTextSize) < kLevelTextSize) return nullptr;
  const char* tag = log + kLevelTextSize;
  const void* space = std::memchr(tag, ' ', strnlen(tag, ELOG_FILTER_TAG_MAX_LEN));
  if (!space) return nullptr;
  *tag_len = static_cast<std::size_t>(static_cast<const char*>(space) - tag);
  return tag;
}
