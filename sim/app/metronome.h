// Metronome: measures how late a busy machine runs its threads, so that other limits can allow
// for that delay.
#pragma once

#include <atomic>
#include <chrono>
#include <thread>

#include "common/bytes.h"

namespace sim {

class Metronome {
 public:
  Metronome()
      : thread_([this] {
          while (!ending_) beat();
        }) {}
  ~Metronome() {
    ending_ = true;
    thread_.join();
  }
  Metronome(const Metronome&) = delete;

  /// Returns the sum of all delays so far, in milliseconds.
  double late_ms() const { return static_cast<double>(late_us_) / 1000; }

 private:
  using Clock = std::chrono::steady_clock;
  static constexpr std::chrono::microseconds kBeat{10'000};
  static constexpr std::chrono::microseconds kUsual{1'000};  ///< the delay on an idle machine

  void beat() {
    const auto due = Clock::now() + kBeat;
    std::this_thread::sleep_until(due);
    const auto late = std::chrono::duration_cast<std::chrono::microseconds>(Clock::now() - due);
    if (late > kUsual) late_us_ += late.count();
  }

  std::atomic<i64> late_us_ = 0;
  std::atomic<bool> ending_ = false;
  std::thread thread_;
};

}  // namespace sim
