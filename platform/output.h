// Output to standard output and standard error: whoever reads it, or no longer does, the service goes on.
#pragma once

#include <cstdarg>
#include <cstddef>
#include <string_view>

/// To be called before anything is opened or printed: opens those of the descriptors 0 to 2 that are closed
/// on /dev/null, so that no device gets such a number and then the messages; and lets the process live on
/// when the reader of a pipe has ended.
void output_init();

/// Writes `message` to descriptor 1 or 2 if that is possible at once. Otherwise the message is lost and
/// counted; a line that tells the count precedes the next one that can be written. Never waits, leaves the
/// descriptor's flags, which other programs share, and errno as they are. Any thread.
void output(int fd, std::string_view message);
/// The same with a message of at most kOutputSize - 1 characters; a longer one is cut.
[[gnu::format(printf, 2, 3)]] void output_format(int fd, const char* format, ...);

constexpr std::size_t kOutputSize = 2048;

/// A message in the making, so that its parts are written together. What does not fit is cut off.
class OutputText {
 public:
  [[gnu::format(printf, 2, 3)]] void add(const char* format, ...);
  /// `arguments` may be used again.
  [[gnu::format(printf, 2, 0)]] void add_list(const char* format, va_list arguments);
  void send(int fd) const { output(fd, {text_, length_}); }

 private:
  char text_[kOutputSize];
  std::size_t length_ = 0;
};
