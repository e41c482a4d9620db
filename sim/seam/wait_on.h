// Waiting for a condition in memory shared between processes, woken by a semaphore. Nothing is locked, so a
// process that is killed at any instant leaves nobody waiting for ever. Needs nothing but the C library.
#pragma once

#include <semaphore.h>
#include <time.h>

#include <algorithm>
#include <limits>

#include "common/bytes.h"

namespace sim {

constexpr i64 kMillisecond = 1'000'000;
constexpr i64 kNoDeadline = std::numeric_limits<i64>::max();

inline i64 nanoseconds_of(clockid_t clock) {
  timespec now;
  clock_gettime(clock, &now);
  return now.tv_sec * 1'000'000'000LL + now.tv_nsec;
}
inline i64 monotonic_ns() { return nanoseconds_of(CLOCK_MONOTONIC); }

/// Waits for a post, for at most `duration` nanoseconds.
inline void wait_for_post(sem_t& semaphore, i64 duration) {
  const auto until = [&](clockid_t clock) {
    const i64 end = nanoseconds_of(clock) + duration;
    return timespec{end / 1'000'000'000, end % 1'000'000'000};
  };
#ifdef __UCLIBC__  // has no sem_clockwait, so a change of the clock lengthens or shortens a wait
  const timespec limit = until(CLOCK_REALTIME);
  sem_timedwait(&semaphore, &limit);
#else
  const timespec limit = until(CLOCK_MONOTONIC);
  sem_clockwait(&semaphore, CLOCK_MONOTONIC, &limit);
#endif
}

/// Tests `done` at once, after every post and at least every 100 ms. Returns true as soon as it holds, and
/// false when `deadline` (of monotonic_ns) has passed.
template <typename Done>
bool wait_on(sem_t& semaphore, i64 deadline, Done done) {
  while (!done()) {
    const i64 now = monotonic_ns();
    if (now >= deadline) return false;
    wait_for_post(semaphore, std::min(deadline - now, 100 * kMillisecond));
  }
  return true;
}

/// Posts unless `enough` posts are pending already, so that the value stays small if nobody waits.
inline void wake(sem_t& semaphore, int enough = 1) {
  int pending;
  if (sem_getvalue(&semaphore, &pending) == 0 && pending < enough) sem_post(&semaphore);
}

}  // namespace sim
