// The head's motion while somebody holds a button: it lasts as long as it is asked for again and again, so
// that a page that is closed, stopped or cut off lets go as well.
#pragma once

#include <chrono>
#include <condition_variable>
#include <mutex>
#include <thread>

#include "sim/host/conversation.h"

namespace sim {

class HeadMotion {
 public:
  /// The motion ends when it was not asked for again within this time.
  static constexpr std::chrono::milliseconds kLimit{400};

  /// Speeds as the relative controls count them; negative ones are left, down and wide. 0 stops.
  struct Speeds {
    i32 pan = 0, tilt = 0, zoom = 0;
    bool operator==(const Speeds&) const = default;
  };

  explicit HeadMotion(Conversation& conversation);
  ~HeadMotion();  ///< stops the head
  HeadMotion(const HeadMotion&) = delete;

  // These return at once. Any thread may call them.
  /// Whoever asked last has the head. A holder's number is its own.
  void hold(u64 holder, Speeds speeds);
  /// Stops the head if this holder has it.
  void release(u64 holder);

 private:
  using Clock = std::chrono::steady_clock;

  void run();
  void send(Speeds speeds);

  Conversation& conversation_;
  std::mutex lock_;
  std::condition_variable changed_;
  u64 holder_ = 0;
  Speeds wanted_;
  Clock::time_point deadline_;
  bool over_ = false;
  Speeds sent_;  ///< this thread's only
  std::thread thread_;
};

}  // namespace sim
