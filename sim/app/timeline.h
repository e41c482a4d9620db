// Timeline: does things at their time, in a thread of its own, one after the other.
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
  ~Timeline();  ///< what has not come yet is not done
  Timeline(const Timeline&) = delete;

  /// `seconds` from now. May be called by what is being done.
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
