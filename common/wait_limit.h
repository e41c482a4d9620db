// WaitLimit: until when a thread may wait for others. Whoever has promised something by a certain time sets
// the limit, and every wait for the system server (for room, an answer or a lock) keeps to it.
#pragma once

#include <algorithm>
#include <chrono>

/// During its lifetime the waits of this thread fail at `end` at the latest. Limits nest: the earliest one
/// counts. A thread without a limit waits as long as it takes.
class WaitLimit {
 public:
  using Clock = std::chrono::steady_clock;

  explicit WaitLimit(Clock::time_point end) : former_(end_) { end_ = std::min(end, former_); }
  ~WaitLimit() { end_ = former_; }
  WaitLimit(const WaitLimit&) = delete;

  /// Clock::time_point::max() without a limit.
  static Clock::time_point end() { return end_; }
  static bool over() { return end_ != Clock::time_point::max() && Clock::now() >= end_; }

 private:
  static constinit inline thread_local Clock::time_point end_ = Clock::time_point::max();
  const Clock::time_point former_;
};
