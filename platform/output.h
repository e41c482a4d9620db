// Standard output and standard error for a service that goes on whether or not anybody reads them.
#pragma once

#include <cstdarg>
#include <cstddef>
#include <string_view>

/// Must be called before anything is opened or printed. Opens those of the descriptors 0 to 2 that are closed
/// on /dev/null, so that no device gets such a number and then receives messages. Also keeps the process
/// alive when the reader of a pipe has ended.
void output_init();

/// Writes `message` to descriptor 1 or 2 if that is possible at once. Otherwise the message is lost and
/// counted; a line with the count precedes the next message that can be written. Never waits. Leaves errno as
/// it is, and the descriptor's flags, which other programs share. Any thread may call it.
void output(int fd, std::string_view message);
/// The same for a formatted message of at most kOutputSize - 1 characters; a longer one is cut.
[[gnu::format(printf, 2, 3)]] void output_format(int fd, const char* format, ...);

constexpr std::size_t kOutputSize = 2048;

/// A message that is put together from parts and written as a whole. What does not fit is cut off.
class OutputText {
 public:
  [[gnu::format(printf, 2, 3)]] void add(const char* format, ...);
  /// Leaves `arguments` usable for another call.
  [[gnu::format(printf, 2, 0)]] void add_list(const char* format, va_list arguments);
  void send(int fd) const { output(fd, {text_, length_}); }

 private:
  char text_[kOutputSize];
  std::size_t length_ = 0;
};
