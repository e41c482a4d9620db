// The processor time and memory of a process, as the kernel tells them.
#pragma once

#include <sys/types.h>

#include <chrono>

namespace sim {

class ProcessLoad {
 public:
  /// Looks at the process again. A figure covers the time since the last look that was a second ago or more.
  void look(pid_t process);

  bool running() const { return running_; }      ///< false as well for one that nobody has waited for yet
  double percent() const { return percent_; }    ///< of one processor
  long kilobytes() const { return kilobytes_; }  ///< in memory

 private:
  using Clock = std::chrono::steady_clock;

  pid_t process_ = 0;
  bool running_ = false;
  double percent_ = 0, seconds_ = 0;
  long kilobytes_ = 0;
  Clock::time_point since_;
};

}  // namespace sim
