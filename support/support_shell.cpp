#include "support/support_shell.h"

#include <unistd.h>

#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "platform/sys.h"

namespace {

constexpr size_t kCommandSize = 1024;

// The output of a shell command, line by line.
class CommandOutput {
 public:
  [[gnu::format(printf, 2, 3)]] explicit CommandOutput(const char* format, ...) {
    char command[kCommandSize];
    va_list arguments;
    va_start(arguments, format);
    const int length = std::vsnprintf(command, sizeof(command), format, arguments);
    va_end(arguments);
    if (length >= 0 && static_cast<size_t>(length) < sizeof(command)) pipe_ = sys::popen(command, "r");
  }
  ~CommandOutput() {
    if (pipe_ != nullptr) ::pclose(pipe_);
  }
  CommandOutput(const CommandOutput&) = delete;

  bool failed() const { return pipe_ == nullptr; }
  template <int size>
  bool next_line(char (&line)[size]) {
    return pipe_ != nullptr && std::fgets(line, size, pipe_) != nullptr;
  }

 private:
  std::FILE* pipe_ = nullptr;
};

}  // namespace

int get_process_name(char* dst) {
  if (dst == nullptr) return -1;
  CommandOutput output("cat /proc/%1d/status | grep Name: | awk '{print $2}'", getpid());
  char line[kProcessNameSize];
  if (!output.next_line(line)) return -1;
  const size_t length = std::strlen(line);
  const size_t kept = length > 0 ? length - 1 : 0;
  std::memcpy(dst, line, kept);
  dst[kept] = '\0';
  return 0;
}

int process_is_running(const char* name) {
  CommandOutput output("ps -ef | grep -w \"%s\" | grep -v \"grep\"", name);
  char line[256];
  while (output.next_line(line)) {
    if (std::strstr(line, name) != nullptr) return 1;
  }
  return 0;
}

int process_find_pid(const char* name) {
  CommandOutput output("ps -ef | grep -w \"%s\" | grep -v \"grep\" | awk '{print $1}'", name);
  char line[256];
  int pid = -1;
  while (output.next_line(line)) pid = std::atoi(line);
  return pid;
}

int file_in_use(const char* path) {
  CommandOutput output("fuser %s", path);
  if (output.failed()) return -1;
  char line[1024];
  return output.next_line(line) ? 1 : 0;
}
