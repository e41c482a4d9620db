#include "sim/host/control_steps.h"

#include <cmath>
#include <cstdio>
#include <limits>

#include "sim/parties/camera_head.h"

namespace sim {

namespace {

constexpr double kLeastCorrelation = 0.7;
constexpr double kNotFound = std::numeric_limits<double>::quiet_NaN();

using Values = std::array<double, 2>;

Values luma_change(const MeasuredPicture& before, const MeasuredPicture& after) {
  return {after.mean_luma - before.mean_luma};
}

Values contrast_change(const MeasuredPicture& before, const MeasuredPicture& after) {
  return {after.luma_deviation / before.luma_deviation};
}

Values scale_change(const MeasuredPicture& before, const MeasuredPicture& after) {
  const SceneScale scale = find_scale(before, after);
  return {scale.correlation < kLeastCorrelation ? kNotFound : scale.factor};
}

Values shift(const MeasuredPicture& before, const MeasuredPicture& after) {
  const SceneShift found = find_shift(before, after);
  if (found.correlation < kLeastCorrelation) return {kNotFound, kNotFound};
  return {found.right, found.up};
}

constexpr Measure kLuma{{{{"luma", 1}}}, luma_change};
constexpr Measure kContrast{{{{"contrast", 2}}}, contrast_change};
constexpr Measure kScale{{{{"scale", 3}}}, scale_change};
constexpr Measure kShift{{{{"right", 3}, {"up", 3}}}, shift};

constexpr Limits about(double value, double tolerance) { return {value - tolerance, value + tolerance}; }

// How the scene moves when the head turns by so many degrees: in the opposite direction, within 1 %
// of the width.
constexpr Limits against(double degrees) { return about(-degrees / kPictureDegrees, 0.01); }
constexpr Limits kStill = against(0);
// The head turns until the stop arrives, which takes a different time on every machine.
constexpr Limits kSome{0.02, 0.42}, kSomeBack{-0.42, -0.02};
constexpr Limits kSomeDown{-0.24, -0.02}, kSomeUp{0.02, 0.24};

constexpr Limits kTwice = about(2, 0.04), kQuarter = about(0.25, 0.005);

// The host counts arc seconds, the head steps of 270 of them; the lens has position 0 at 1 and 16384 at 10.
// clang-format off
const ControlStep kSteps[] = {
    {"brightness 12", {{{"brightness", 12}}}, {"81 01 04 A4 00 00 00 0C FF"}, &kLuma, {{{15, 40}}}},
    {"brightness 4", {{{"brightness", 4}}}, {"81 01 04 A4 00 00 00 04 FF"}, &kLuma, {{{-80, -30}}}},
    {"brightness 8", {{{"brightness", 8}}}, {"81 01 04 A4 00 00 00 08 FF"}, &kLuma, {{{15, 40}}}},
    {"contrast 12", {{{"contrast", 12}}}, {"81 01 04 A2 00 00 00 0C FF"}, &kContrast, {{{1.15, 1.45}}}},
    {"contrast 4", {{{"contrast", 4}}}, {"81 01 04 A2 00 00 00 04 FF"}, &kContrast, {{{0.4, 0.55}}}},
    {"contrast 8", {{{"contrast", 8}}}, {"81 01 04 A2 00 00 00 08 FF"}, &kContrast, {{{1.5, 1.8}}}},
    {"zoom to 2", {{{"zoom_absolute", 4932}}}, {"81 01 04 47 01 03 04 04 FF"}, &kScale, {{kTwice}}},
    {"zoom to 4", {{{"zoom_absolute", 9864}}}, {"81 01 04 47 02 06 08 08 FF"}, &kScale, {{kTwice}}},
    {"zoom to 1", {{{"zoom_absolute", 0}}}, {"81 01 04 47 00 00 00 00 FF"}, &kScale, {{kQuarter}}},
    {"pan to 9", {{{"pan_absolute", 9 * 3600}}},
     {"81 01 06 02 10 10 00 00 07 08 00 00 00 00 FF"}, &kShift, {against(9), kStill}},
    {"tilt to 6", {{{"tilt_absolute", 6 * 3600}}},
     {"81 01 06 02 10 10 00 00 07 08 00 00 05 00 FF"}, &kShift, {kStill, against(6)}},
    {"pan to -6", {{{"pan_absolute", -6 * 3600}}},
     {"81 01 06 02 10 10 0F 0F 0B 00 00 00 05 00 FF"}, &kShift, {against(-15), kStill}},
    {"tilt to -3", {{{"tilt_absolute", -3 * 3600}}},
     {"81 01 06 02 10 10 0F 0F 0B 00 0F 0F 0D 08 FF"}, &kShift, {kStill, against(-9)}},
    {"pan to 0", {{{"pan_absolute", 0}}},
     {"81 01 06 02 10 10 00 00 00 00 0F 0F 0D 08 FF"}, &kShift, {against(6), kStill}},
    {"tilt to 0", {{{"tilt_absolute", 0}}},
     {"81 01 06 02 10 10 00 00 00 00 00 00 00 00 FF"}, &kShift, {kStill, against(3)}},
    {"turn right", {{{"pan_speed", 1}, {"pan_speed", 0}}},
     {"81 01 06 01 10 10 02 03 FF", "81 01 06 01 10 10 03 03 FF"}, &kShift, {kSomeBack, kStill}},
    {"stand at right", {}, {}, &kShift, {kStill, kStill}},
    {"turn left", {{{"pan_speed", -1}, {"pan_speed", 0}}},
     {"81 01 06 01 10 10 01 03 FF", "81 01 06 01 10 10 03 03 FF"}, &kShift, {kSome, kStill}},
    {"turn up", {{{"tilt_speed", 1}, {"tilt_speed", 0}}},
     {"81 01 06 01 10 10 03 01 FF", "81 01 06 01 10 10 03 03 FF"}, &kShift, {kStill, kSomeDown}},
    {"stand above", {}, {}, &kShift, {kStill, kStill}},
    {"turn down", {{{"tilt_speed", -1}, {"tilt_speed", 0}}},
     {"81 01 06 01 10 10 03 02 FF", "81 01 06 01 10 10 03 03 FF"}, &kShift, {kStill, kSomeUp}},
};
// clang-format on

std::string number_text(const Measure::Quantity& quantity, double value) {
  char text[32];
  std::snprintf(text, sizeof(text), "%.*f", quantity.decimals, value);
  return text;
}

// Joins the step's quantities, each with its value's text after its name.
template <class ValueText>
std::string texts(const ControlStep& step, ValueText value_text) {
  std::string text;
  for (std::size_t i = 0; i < step.limits.size(); ++i) {
    const Measure::Quantity& quantity = step.measure->quantities[i];
    if (quantity.name) text += (i ? ", " : "") + std::string(quantity.name) + ' ' + value_text(quantity, i);
  }
  return text;
}

}  // namespace

std::span<const ControlStep> control_steps() { return kSteps; }

std::string verdict(const ControlStep& step, const StepOutcome& outcome) {
  if (!outcome.error.empty()) return outcome.error;
  if (outcome.frames != step.frames) return "other frames";
  for (std::size_t i = 0; i < step.limits.size(); ++i) {
    const char* const name = step.measure->quantities[i].name;
    const double value = outcome.values[i];
    if (!name) continue;
    if (std::isnan(value)) return "scene not found again";
    if (value < step.limits[i].least || value > step.limits[i].most)
      return std::string(name) + " out of limits";
  }
  return "right";
}

std::string expected_text(const ControlStep& step) {
  return texts(step, [&](const Measure::Quantity& quantity, std::size_t i) {
    return number_text(quantity, step.limits[i].least) + ".." + number_text(quantity, step.limits[i].most);
  });
}

std::string measured_text(const ControlStep& step, const StepOutcome& outcome) {
  if (!outcome.error.empty()) return "-";
  return texts(step, [&](const Measure::Quantity& quantity, std::size_t i) {
    return number_text(quantity, outcome.values[i]);
  });
}

}  // namespace sim
