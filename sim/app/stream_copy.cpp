#include "sim/app/stream_copy.h"

#include <fcntl.h>
#include <unistd.h>

#include <cstdio>

namespace sim {

namespace {

int take_standard_output() {
  std::fflush(stdout);
  const int taken = fcntl(STDOUT_FILENO, F_DUPFD_CLOEXEC, STDERR_FILENO + 1);
  dup2(STDERR_FILENO, STDOUT_FILENO);
  return taken;
}

int create(const std::string& path) {
  return open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0666);
}

}  // namespace

StreamCopy::StreamCopy(const std::string& path)
    : takes_standard_output_(path == "-"),
      buffer_(takes_standard_output_ ? take_standard_output() : create(path), std::ios::out) {
  if (!buffer_.is_open()) stream_.setstate(std::ios::failbit);
}

StreamCopy::~StreamCopy() {
  if (!takes_standard_output_) return;
  std::fflush(stdout);
  stream_.flush();
  dup2(buffer_.fd(), STDOUT_FILENO);
}

}  // namespace sim
