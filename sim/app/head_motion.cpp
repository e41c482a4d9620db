#include "sim/app/head_motion.h"

#include "sim/host/host_controls.h"

namespace sim {

HeadMotion::HeadMotion(Conversation& conversation)
    : conversation_(conversation), thread_([this] { run(); }) {}

HeadMotion::~HeadMotion() {
  {
    const std::lock_guard guard(lock_);
    over_ = true;
  }
  changed_.notify_all();
  thread_.join();
}

void HeadMotion::hold(u64 holder, Speeds speeds) {
  {
    const std::lock_guard guard(lock_);
    holder_ = holder;
    wanted_ = speeds;
    deadline_ = Clock::now() + kLimit;
  }
  changed_.notify_all();
}

void HeadMotion::release(u64 holder) {
  {
    const std::lock_guard guard(lock_);
    if (holder != holder_) return;
    wanted_ = {};
  }
  changed_.notify_all();
}

void HeadMotion::run() {
  std::unique_lock guard(lock_);
  while (!over_ || sent_ != Speeds{}) {
    if (over_ || Clock::now() >= deadline_) wanted_ = {};
    if (const Speeds speeds = wanted_; speeds != sent_) {
      guard.unlock();
      send(speeds);
      guard.lock();
    } else if (wanted_ == Speeds{}) {
      changed_.wait(guard);
    } else {
      changed_.wait_until(guard, deadline_);
    }
  }
}

// Sends what differs. A camera that does not take it is not asked again: without a cable or a service there
// is nothing to be moved.
void HeadMotion::send(Speeds speeds) {
  struct Axis {
    const char* control;
    i32 Speeds::*speed;
  };
  constexpr Axis kAxes[] = {
      {"pan_speed", &Speeds::pan}, {"tilt_speed", &Speeds::tilt}, {"zoom_continuous", &Speeds::zoom}};
  for (const auto& [control, speed] : kAxes) {
    if (speeds.*speed != sent_.*speed) set_control(conversation_, *find_host_control(control), speeds.*speed);
  }
  sent_ = speeds;
}

}  // namespace sim
