// ElogLine: one line of the logger while it is being built, on the stack of the call that logs. It has the
// layout of the record that the queue takes, so nothing is copied. The bytes after its length are neither
// initialised nor sent.
#pragma once

#include <algorithm>
#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <string_view>

#include "elog/elog.h"
#include "elog/elog_port.h"
#include "elog/elog_record.h"
#include "elog/elog_utils.h"

static_assert(ELOG_LINE_BUF_SIZE == kElogTextSize);

class ElogLine {
 public:
  explicit ElogLine(u8 level) { record_.payload.level = level; }

  void append(const char* text) { length_ += elog_strcpy(length_, end(), text); }
  void append(std::string_view text) {
    const std::size_t count = std::min(text.size(), ELOG_LINE_BUF_SIZE - length_);
    std::memcpy(end(), text.data(), count);
    length_ += count;
  }
  void append(char c) {
    if (length_ < ELOG_LINE_BUF_SIZE) record_.payload.text[length_++] = c;
  }
  /// If the message does not fit, the line becomes `cut` bytes long. The same holds for a message that cannot
  /// be formatted: what was formatted before the error is kept, the rest is filled with zeros.
  [[gnu::format(printf, 3, 0)]] void print(std::size_t cut, const char* format, va_list args) {
    const std::size_t room = ELOG_LINE_BUF_SIZE - length_;
    va_list again;
    va_copy(again, args);
    const int count = std::vsnprintf(end(), room, format, args);
    if (count < 0) {
      std::memset(end(), 0, room);
      (void)std::vsnprintf(end(), room, format, again);
    }
    va_end(again);
    const bool fits = count >= 0 && static_cast<std::size_t>(count) < room;
    length_ = fits ? length_ + static_cast<std::size_t>(count) : cut;
  }
  void append_newline() {
    length_ = std::min(length_, ELOG_LINE_BUF_SIZE - 1);
    record_.payload.text[length_++] = '\n';
  }
  const char* terminated() {
    *end() = '\0';
    return record_.payload.text;
  }
  void send() { elog_port_output(record_.payload.text, length_); }

 private:
  char* end() { return record_.payload.text + length_; }

  alignas(long) ElogRecord record_;
  std::size_t length_ = 0;
};
