#include "sim/parties/camera_head.h"

#include <algorithm>
#include <array>
#include <cmath>

#include "sim/seam/wait_on.h"

namespace sim {

namespace {

constexpr double kDegreesPerStep = 270.0 / 3600;
constexpr double kDegreesPerSpeed = 5;  // per second
constexpr double kPanLimit = 170, kTiltLimit = 90;
constexpr double kZoomSpeed = kZoomEnd / 2.0;  // lens positions per second

double degrees(i32 steps, double limit) { return std::clamp(steps * kDegreesPerStep, -limit, limit); }
i32 steps(double degrees) { return static_cast<i32>(std::lround(degrees / kDegreesPerStep)); }
double degrees_per_second(i32 speed, i32 most) { return std::clamp(speed, 1, most) * kDegreesPerSpeed; }

}  // namespace

double CameraHead::Axis::at(i64 now) const {
  const double way = speed * 1e-9 * static_cast<double>(now - since);
  return std::clamp(to, from - way, from + way);
}

void CameraHead::Axis::move(double target, double units_per_second, i64 now) {
  *this = {at(now), target, units_per_second, now};
}

CameraView CameraHead::view() const {
  const std::lock_guard guard(lock_);
  const i64 now = monotonic_ns();
  return {pan_.at(now), tilt_.at(now), std::pow(kMostZoom, zoom_.at(now) / kZoomEnd), settings_};
}

CameraHead::Position CameraHead::position() const {
  const std::lock_guard guard(lock_);
  const i64 now = monotonic_ns();
  return {steps(pan_.at(now)), steps(tilt_.at(now))};
}

i32 CameraHead::zoom_position() const {
  const std::lock_guard guard(lock_);
  return static_cast<i32>(std::lround(zoom_.at(monotonic_ns())));
}

bool CameraHead::moving() const {
  const std::lock_guard guard(lock_);
  const i64 now = monotonic_ns();
  return std::ranges::any_of(std::array{&pan_, &tilt_, &zoom_},
                             [=](const Axis* axis) { return axis->at(now) != axis->to; });
}

void CameraHead::turn_to(Position target, i32 pan_speed, i32 tilt_speed) {
  const std::lock_guard guard(lock_);
  const i64 now = monotonic_ns();
  pan_.move(degrees(target.pan, kPanLimit), degrees_per_second(pan_speed, kMostPanSpeed), now);
  tilt_.move(degrees(target.tilt, kTiltLimit), degrees_per_second(tilt_speed, kMostTiltSpeed), now);
}

void CameraHead::turn(Direction direction, i32 pan_speed, i32 tilt_speed) {
  const std::lock_guard guard(lock_);
  const i64 now = monotonic_ns();
  const auto target = [now](const Axis& axis, i32 sign, double limit) {
    return sign == 0 ? axis.at(now) : sign * limit;
  };
  pan_.move(target(pan_, direction.pan, kPanLimit), degrees_per_second(pan_speed, kMostPanSpeed), now);
  tilt_.move(target(tilt_, direction.tilt, kTiltLimit), degrees_per_second(tilt_speed, kMostTiltSpeed), now);
}

void CameraHead::zoom_to(i32 position) {
  const std::lock_guard guard(lock_);
  zoom_.move(std::clamp(position, 0, kZoomEnd), kZoomSpeed, monotonic_ns());
}

void CameraHead::zoom(i32 direction) {
  const std::lock_guard guard(lock_);
  const i64 now = monotonic_ns();
  zoom_.move(direction == 0 ? zoom_.at(now) : direction < 0 ? 0 : kZoomEnd, kZoomSpeed, now);
}

PictureSettings CameraHead::settings() const {
  const std::lock_guard guard(lock_);
  return settings_;
}

void CameraHead::set(const PictureSettings& settings) {
  const std::lock_guard guard(lock_);
  settings_ = settings;
}

}  // namespace sim
