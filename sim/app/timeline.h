// Timeline: runs actions at their time, in a thread of its own, one after the other.
#pragma once

#include <chrono>
#include <condition_variable>
#include <functional>
#include <map>
#include <mutex>
#include <thread>

namespace sim {

class Timeline {
 public:
  Timeline();
  ~Timeline();  ///< drops the actions that are not due yet
  Timeline(const Timeline&) = delete;

  /// Runs an action `seconds` from now. An action may call this.
  void in(double seconds, std::function<void()> action);

 private:
  using Clock = std::chrono::steady_clock;
  void run();

  std::mutex lock_;
  std::condition_variable changed_;
  std::multimap<Clock::time_point, std::function<void()>> actions_;
  bool stopping_ = false;
  std::thread thread_;
};

}  // namespace sim
