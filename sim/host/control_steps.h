// The steps by which the host drives the camera: what it sets, the VISCA frames that the server must receive
// for it, and how the picture must change.
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
    int decimals;  ///< printed
  };
  std::array<Quantity, 2> quantities;  ///< only one is measured if the second has no name
  /// Returns the quantities; they are not a number if the scene was not found again.
  std::array<double, 2> (*of)(const MeasuredPicture& before, const MeasuredPicture& after);
};

struct Limits {
  double least, most;
};

struct ControlStep {
  const char* name;  ///< also names the picture's file, with dashes for blanks
  struct Setting {
    const char* control;  ///< if null, nothing is set
    i32 value;
  };
  std::array<Setting, 2> settings;  ///< the second follows while the head still moves for the first one
  std::vector<std::string> frames;  ///< in hexadecimal
  const Measure* measure;
  std::array<Limits, 2> limits;  ///< one for each of the measure's quantities
};
std::span<const ControlStep> control_steps();

/// The outcome of a step.
struct StepOutcome {
  std::string error{};  ///< what prevented the step; empty if nothing did
  std::vector<std::string> frames{};
  std::array<double, 2> values{};
};

/// Returns "right", or what is wrong.
std::string verdict(const ControlStep& step, const StepOutcome& outcome);

/// Return texts such as "luma 15.0..40.0" and "luma 31.3".
std::string expected_text(const ControlStep& step);
std::string measured_text(const ControlStep& step, const StepOutcome& outcome);

}  // namespace sim
