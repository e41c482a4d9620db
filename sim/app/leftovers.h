// Sees to it that a process that is killed leaves nothing of its run behind.
#pragma once

#include <sys/types.h>

namespace sim {

class Leftovers {
 public:
  /// Starts a process that waits for the end of this one. To be called before there are threads and a run.
  Leftovers();
  ~Leftovers();  ///< this process has cleaned up by itself
  Leftovers(const Leftovers&) = delete;

 private:
  int end_ = -1;  ///< of a pipe, whose other end the other process has
  pid_t other_ = -1;
};

}  // namespace sim
