#include "platform/output.h"

#include <fcntl.h>
#include <limits.h>
#include <poll.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/uio.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstdio>

#include "common/bytes.h"

namespace {

// Of standard output and standard error.
std::atomic<u32> lost_messages[2];

// This is a handler because commands would inherit an ignored signal.
void ignore(int) {}

}  // namespace

void output_init() {
  int fd;
  do fd = open("/dev/null", O_RDWR);
  while (fd >= 0 && fd <= STDERR_FILENO);
  if (fd >= 0) close(fd);
  signal(SIGPIPE, ignore);
}

namespace {

// What is written together: the report of lost messages, if any, and the message.
struct Parts {
  static constexpr int kCount = 2;

  Parts(std::string_view notice, std::string_view message)
      : parts{part(notice), part(message)}, size(notice.size() + message.size()) {}

  static iovec part(std::string_view text) { return {const_cast<char*>(text.data()), text.size()}; }

  iovec parts[kCount];
  std::size_t size;
};

bool write_whole(int fd, const Parts& text) {
  return writev(fd, text.parts, Parts::kCount) == static_cast<ssize_t>(text.size);
}

bool send_whole(int fd, Parts& text) {
  msghdr message = {};
  message.msg_iov = text.parts;
  message.msg_iovlen = Parts::kCount;
  return sendmsg(fd, &message, MSG_DONTWAIT | MSG_NOSIGNAL) == static_cast<ssize_t>(text.size);
}

// A pipe that poll() reports as writable takes PIPE_BUF bytes.
bool write_if_writable(int fd, const Parts& text) {
  pollfd ready = {fd, POLLOUT, 0};
  return text.size <= PIPE_BUF && poll(&ready, 1, 0) > 0 && write_whole(fd, text);
}

// Opened again, a pipe or terminal can be written without waiting; O_NONBLOCK on the descriptor itself would
// affect every program that shares it. A file, opened again, would be written from its beginning.
bool write_at_once(int fd, Parts text) {
  struct stat info;
  if (fstat(fd, &info) < 0) return false;
  if (S_ISREG(info.st_mode)) return write_whole(fd, text);
  if (S_ISSOCK(info.st_mode)) return send_whole(fd, text);
  const char* path = fd == STDOUT_FILENO ? "/proc/self/fd/1" : "/proc/self/fd/2";
  const int own = open(path, O_WRONLY | O_NONBLOCK | O_NOCTTY | O_CLOEXEC);
  if (own < 0) return write_if_writable(fd, text);
  const bool written = write_whole(own, text);
  close(own);
  return written;
}

}  // namespace

void output(int fd, std::string_view message) {
  const int error = errno;
  std::atomic<u32>& lost = lost_messages[fd == STDERR_FILENO];
  const u32 count = lost.exchange(0);
  char notice[48];
  const int length =
      count ? std::snprintf(notice, sizeof(notice), "uvc_gadget: messages lost: %u\n", count) : 0;
  if (!write_at_once(fd, {{notice, static_cast<std::size_t>(length)}, message})) lost += count + 1;
  errno = error;
}

void output_format(int fd, const char* format, ...) {
  OutputText text;
  va_list arguments;
  va_start(arguments, format);
  text.add_list(format, arguments);
  va_end(arguments);
  text.send(fd);
}

void OutputText::add(const char* format, ...) {
  va_list arguments;
  va_start(arguments, format);
  add_list(format, arguments);
  va_end(arguments);
}

void OutputText::add_list(const char* format, va_list arguments) {
  va_list copy;
  va_copy(copy, arguments);
  const int length = std::vsnprintf(text_ + length_, kOutputSize - length_, format, copy);
  va_end(copy);
  if (length > 0) length_ = std::min(length_ + static_cast<std::size_t>(length), kOutputSize - 1);
}
