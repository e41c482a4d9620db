// What the camera looks at and how: a pan-tilt head, a zoom lens and the picture settings. Head and lens move
// at their own speeds within their limits. Any thread may call.
#pragma once

#include <mutex>

#include "common/bytes.h"

namespace sim {

enum PictureMode : u8 { kPlain = 0x10, kBlackAndWhite, kNegative, kMirrored };

/// Image, exposure and white-balance settings with VISCA's values. The values here are those of a camera that
/// was just switched on; with them the picture is the unchanged scene.
struct PictureSettings {
  u16 brightness = 8;  ///< 0..15
  u16 contrast = 8;    ///< 0..15
  u16 saturation = 8;  ///< 0..15; 0 shows grey
  u16 sharpness = 3;   ///< 0..15
  u8 gamma = 0;        ///< 0..6; 0 is linear
  u8 gain = 15;        ///< 4..15; effective with manual exposure only
  u8 power_line = 0;   ///< 0 off, 1 50 Hz, 2 60 Hz; has no visible effect
  PictureMode picture_mode = kPlain;
  bool backlight = false;  ///< lightens the dark parts
  bool auto_exposure = true;
  bool auto_white_balance = true;
  u16 white_balance = 4600;  ///< kelvin, 1800..10000; effective with manual white balance only
  bool operator==(const PictureSettings&) const = default;
};

/// What the scene needs to know to draw a picture.
struct CameraView {
  double pan = 0;   ///< degrees, right is positive
  double tilt = 0;  ///< degrees, up is positive
  double zoom = 1;  ///< magnification, 1..kMostZoom
  PictureSettings settings = {};
  bool operator==(const CameraView&) const = default;
};

constexpr double kMostZoom = 10;
constexpr double kPictureDegrees = 60;                      ///< width of the picture at zoom 1
constexpr i32 kMostPanSpeed = 0x18, kMostTiltSpeed = 0x14;  ///< in VISCA's numbers, which start at 1
/// The lens position of kMostZoom. Equal steps of the lens multiply the magnification by equal factors.
constexpr i32 kZoomEnd = 16384;

class CameraHead {
 public:
  /// Returns the state at this instant.
  CameraView view() const;
  /// In steps of 270 arc seconds; right and up are positive.
  struct Position {
    i32 pan, tilt;
  };
  Position position() const;
  i32 zoom_position() const;  ///< 0..kZoomEnd
  bool moving() const;        ///< head or lens

  /// Turns to a position, as far as the head can turn (pan 170 degrees, tilt 90 degrees to either side).
  /// Speeds are VISCA's, 5 degrees per second each.
  void turn_to(Position target, i32 pan_speed, i32 tilt_speed);
  /// Turns until it is stopped or reaches its limits. Directions: 1 right or up, -1 left or down, 0 stop.
  struct Direction {
    i32 pan, tilt;
  };
  void turn(Direction direction, i32 pan_speed, i32 tilt_speed);
  void zoom_to(i32 position);  ///< within the lens's limits; from end to end takes 2 seconds
  void zoom(i32 direction);    ///< 1 tele, -1 wide, 0 stop

  PictureSettings settings() const;
  void set(const PictureSettings& settings);

 private:
  /// Something that moves at a constant speed towards its target.
  struct Axis {
    double from = 0, to = 0, speed = 0;  ///< speed in units per second
    i64 since = 0;                       ///< CLOCK_MONOTONIC in nanoseconds
    double at(i64 now) const;
    void move(double target, double units_per_second, i64 now);
  };
  mutable std::mutex lock_;
  Axis pan_, tilt_;  ///< degrees
  Axis zoom_;        ///< lens position
  PictureSettings settings_;
};

}  // namespace sim
