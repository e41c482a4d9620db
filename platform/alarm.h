// Alarm: a time limit for blocking system calls that have none of their own, such as msgrcv, or one that
// depends on the wall clock, such as sem_timedwait.
#pragma once

#include <chrono>

/// From `delay` after its construction until its destruction, a kernel timer interrupts this thread's
/// blocking calls again and again: they return with EINTR within 10 ms. The caller then looks at its
/// clock and repeats the call or gives up. A thread may have at most one Alarm at a time. It costs
/// two system calls.
class Alarm {
 public:
  using Clock = std::chrono::steady_clock;

  explicit Alarm(Clock::duration delay);
  ~Alarm();
  Alarm(const Alarm&) = delete;

  /// Creates this thread's timer, which allocates memory, before it is needed.
  static void prepare();
};
