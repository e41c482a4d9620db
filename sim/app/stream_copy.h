// The copy of a received stream: a file, or standard output for the program behind a pipe.
#pragma once

#include <ext/stdio_filebuf.h>

#include <ostream>
#include <string>

namespace sim {

class StreamCopy {
 public:
  /// "-" is standard output; while such an object lives, what this program prints goes to standard error.
  explicit StreamCopy(const std::string& path);
  ~StreamCopy();
  StreamCopy(const StreamCopy&) = delete;

  /// For UsbHost::start(). In a failed state if the file cannot be written.
  std::ostream& stream() { return stream_; }

 private:
  const bool takes_standard_output_;
  __gnu_cxx::stdio_filebuf<char> buffer_;
  std::ostream stream_{&buffer_};
};

}  // namespace sim
