// Waiting for a condition in memory shared between processes, woken by a semaphore. Nothing is locked, so a
// party that is killed at any instant leaves nobody waiting for ever on it. Needs nothing but the C library.
#pragma once

#include <semaphore.h>
#include <time.h>

#include <algorithm>
#include <limits>

#include "common/bytes.h"

namespace sim {

constexpr i64 kMillisecond = 1'000'000;
constexpr i64 kNoDeadline = std::numeric_limits<i64>::max();

/// CLOCK_MONOTONIC in nanoseconds.
inline i64 monotonic_ns() {
  timespec now;
  clock_gettime(CLOCK_MONOTONIC, &now);
  return now.tv_sec * 1'000'000'000LL + now.tv_nsec;
}

/// Tests `done` at once, after every post and at least every 100 ms. True as soon as it holds, false when
/// `deadline` (of monotonic_ns) has passed.
template <typename Done>
bool wait_on(sem_t& semaphore, i64 deadline, Done done) {
  while (!done()) {
    const i64 now = monotonic_ns();
    if (now >= deadline) return false;
    const i64 until = std::min(deadline, now + 100 * kMillisecond);
    const timespec limit{until / 1'000'000'000, until % 1'000'000'000};
    sem_clockwait(&semaphore, CLOCK_MONOTONIC, &limit);
  }
  return true;
}

/// Posts unless `enough` posts are pending already, so that the value stays small when nobody waits.
inline void wake(sem_t& semaphore, int enough = 1) {
  int pending;
  if (sem_getvalue(&semaphore, &pending) == 0 && pending < enough) sem_post(&semaphore);
}

}  // namespace sim
