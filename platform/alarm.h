// Alarm: a limit for blocking system calls that have none of their own, such as msgrcv, or one that hangs on
// the wall clock, such as sem_timedwait.
#pragma once

#include <chrono>

/// From `delay` after its construction until its end, a timer of the kernel's interrupts this thread's
/// blocking calls again and again: they return with EINTR within 10 ms. The caller then looks at its clock
/// and repeats the call or gives up. At most one Alarm may live per thread. Costs two system calls.
class Alarm {
 public:
  using Clock = std::chrono::steady_clock;

  explicit Alarm(Clock::duration delay);
  ~Alarm();
  Alarm(const Alarm&) = delete;

  /// Makes this thread's timer, which takes heap, before it is needed.
  static void prepare();
};
