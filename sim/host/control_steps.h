// The steps that the host takes to drive the camera: what it sets, the VISCA frames that the server must
// receive for it, and how the picture must change.
#pragma once

#include <array>
#include <span>
#include <string>
#include <vector>

#include "sim/host/picture_compare.h"

namespace sim {

/// A measured change from one picture to the next.
struct Measure {
  struct Quantity {
    const char* name;
    int decimals;  ///< to print
  };
  std::array<Quantity, 2> quantities;  ///< without a name: only one is measured
  /// Not a number: the scene was not found again.
  std::array<double, 2> (*of)(const MeasuredPicture& before, const MeasuredPicture& after);
};

struct Limits {
  double least, most;
};

struct ControlStep {
  const char* name;  ///< of a picture's file too, when its blanks are dashes
  struct Setting {
    const char* control;  ///< null: nothing is set
    i32 value;
  };
  std::array<Setting, 2> settings;  ///< the second follows while the first one still moves the head
  std::vector<std::string> frames;  ///< in hexadecimal
  const Measure* measure;
  std::array<Limits, 2> limits;  ///< of the measure's quantities
};
std::span<const ControlStep> control_steps();

/// What came of a step.
struct StepOutcome {
  std::string error{};  ///< what kept it from being done; empty: nothing
  std::vector<std::string> frames{};
  std::array<double, 2> values{};
};

/// "right", or what is wrong.
std::string verdict(const ControlStep& step, const StepOutcome& outcome);

/// Such as "luma 15.0..40.0" and "luma 31.3".
std::string expected_text(const ControlStep& step);
std::string measured_text(const ControlStep& step, const StepOutcome& outcome);

}  // namespace sim
