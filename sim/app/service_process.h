// The service as a child process: its output is written to a file, line by line, and it never
// survives its parent.
#pragma once

#include <signal.h>
#include <sys/types.h>

#include <atomic>
#include <cstdio>
#include <deque>
#include <mutex>
#include <optional>
#include <string>
#include <thread>
#include <vector>

namespace sim {

/// What happens to a service's standard output and error.
enum class ServiceOutput {
  kLogged,
  kUnread,      ///< short pipes that nobody reads
  kReaderGone,  ///< pipes whose reader has ended
  kClosed,      ///< closed, and standard input as well
};

class ServiceProcess {
 public:
  /// Starts the command, a program and its arguments. Its standard output and error are written to `log`
  /// (which the caller owns) and, if `echo` is set, to standard error. It gets a process group of its own, so
  /// that Ctrl-C reaches the caller only, and dies with the caller.
  ServiceProcess(std::vector<std::string> command, std::FILE* log, bool echo,
                 ServiceOutput output = ServiceOutput::kLogged);
  ~ServiceProcess();  ///< kills it if it still runs
  ServiceProcess(const ServiceProcess&) = delete;

  pid_t pid() const { return pid_; }
  bool running();
  /// Sends the signal, then SIGKILL to its group if it has not ended within `limit` seconds. Returns the
  /// seconds that it took, or nothing if it had to be killed.
  std::optional<double> stop(double limit, int signal = SIGTERM);
  /// Returns how it ended, once it has: "exit status 0", "killed by signal 11 (Segmentation fault)".
  std::string how_it_ended() const;
  bool ended_with_success() const;

  std::string last_lines() const;  ///< of its output
  /// Returns how many lines its logger dropped because the collector's queue was over half full, according to
  /// its own output.
  unsigned long dropped_log_lines() const { return dropped_; }

 private:
  struct Stream {
    int fd;
    std::string line;  ///< an incomplete line, without its newline
  };

  void read_output();
  bool read_some(Stream& stream);
  void add_line(const std::string& line, bool standard_output);

  const bool echo_;
  std::FILE* const log_;
  Stream streams_[2];
  pid_t pid_;
  std::optional<int> status_;  ///< from waitpid()
  std::atomic<bool> ended_ = false;
  std::atomic<unsigned long> dropped_ = 0;
  mutable std::mutex lock_;
  std::deque<std::string> last_lines_;
  std::thread reader_;
};

}  // namespace sim
