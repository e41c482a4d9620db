#include "sim/app/timeline.h"

#include <utility>

namespace sim {

Timeline::Timeline() : thread_([this] { run(); }) {}

Timeline::~Timeline() {
  {
    std::lock_guard guard(lock_);
    stopping_ = true;
  }
  changed_.notify_all();
  thread_.join();
}

void Timeline::in(double seconds, std::function<void()> action) {
  const auto delay = std::chrono::duration_cast<Clock::duration>(std::chrono::duration<double>(seconds));
  std::lock_guard guard(lock_);
  actions_.emplace(Clock::now() + delay, std::move(action));
  changed_.notify_all();
}

void Timeline::run() {
  std::unique_lock guard(lock_);
  while (!stopping_) {
    if (actions_.empty()) {
      changed_.wait(guard);
    } else if (const auto when = actions_.begin()->first; when > Clock::now()) {
      changed_.wait_until(guard, when);
    } else {
      const auto action = actions_.extract(actions_.begin());
      guard.unlock();
      action.mapped()();
      guard.lock();
    }
  }
}

}  // namespace sim
