// What a storm counts and finds wrong, in memory that its processes share.
#pragma once

#include <atomic>
#include <chrono>
#include <mutex>
#include <string>

#include "sim/app/storm_plan.h"

namespace sim {

/// The largest of what was noted.
class Slowest {
 public:
  void note(double ms) {
    for (u32 value = static_cast<u32>(ms), now = slowest_; now < value;)
      if (slowest_.compare_exchange_weak(now, value)) return;
  }
  u32 ms() const { return slowest_; }

 private:
  std::atomic<u32> slowest_ = 0;
};

struct StormTally {
  std::atomic<u32> lives, rounds, requests, settings, failures;
  std::atomic<u32> faults[32];  ///< as storm_faults()
  std::atomic<u32> streams[4];  ///< as host_formats()
  std::atomic<u32> ends[static_cast<u32>(StormState::kCount)];
  Slowest answer, end, picture, controls, machine;
};

/// One that all processes share which are forked from now on.
StormTally& make_storm_tally();
void print_storm_tally(const StormTally& tally);

/// The voice of one life: steps with their time, and failures, which are counted.
class StormLog {
 public:
  /// `name` such as "life 12". A quiet one tells its steps only once something has failed.
  StormLog(StormTally& tally, std::string name, bool quiet);

  void step(const std::string& text);
  void fail(const std::string& text);
  unsigned failures() const { return failures_; }

 private:
  void say(const std::string& line);

  StormTally& tally_;
  const std::string name_;
  const std::chrono::steady_clock::time_point begin_ = std::chrono::steady_clock::now();
  std::mutex lock_;
  bool quiet_;
  std::string held_back_;
  std::atomic<unsigned> failures_ = 0;
};

}  // namespace sim
