// The judging of the steps that drive the camera: the verdicts on a camera that does not obey.
#include "sim/host/control_steps.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <string_view>

#include "sim/host/host_controls.h"

namespace sim {
namespace {

const ControlStep& step_named(std::string_view name) {
  return *std::ranges::find_if(control_steps(), [=](const ControlStep& step) { return step.name == name; });
}

TEST(ControlSteps, AreJudgedByFramesAndBothQuantities) {
  const ControlStep& pan = step_named("pan to 9");  // of the 60 degrees that the picture is wide
  const struct {
    StepOutcome outcome;
    const char* verdict;
  } cases[] = {
      {{.frames = pan.frames, .values = {-0.15, 0}}, "right"},
      {{.frames = pan.frames, .values = {-0.141, 0.009}}, "right"},
      {{.frames = pan.frames, .values = {0, 0}}, "right out of limits"},
      {{.frames = pan.frames, .values = {0.15, 0}}, "right out of limits"},
      {{.frames = pan.frames, .values = {-0.15, 0.02}}, "up out of limits"},
      {{.frames = pan.frames, .values = {NAN, NAN}}, "scene not found again"},
      {{.frames = {}, .values = {-0.15, 0}}, "other frames"},
      {{.frames = {pan.frames[0], pan.frames[0]}, .values = {-0.15, 0}}, "other frames"},
      {{.error = "no picture after", .frames = pan.frames, .values = {-0.15, 0}}, "no picture after"},
  };
  for (const auto& c : cases) EXPECT_EQ(verdict(pan, c.outcome), c.verdict) << measured_text(pan, c.outcome);
}

// A camera that takes every frame and shows a still picture passes for none but the pauses.
TEST(ControlSteps, NoneIsRightForACameraThatDoesNotObey) {
  MeasuredPicture still{.width = 320, .height = 164, .luma = {}, .mean_luma = 100, .luma_deviation = 50};
  for (u32 i = 0; i < still.width * still.height; ++i)
    still.luma.push_back(static_cast<u8>(i * i / 7919 % 200));
  for (const ControlStep& step : control_steps()) {
    const StepOutcome unmoved{.frames = step.frames, .values = step.measure->of(still, still)};
    EXPECT_EQ(verdict(step, unmoved) == "right", step.frames.empty()) << step.name;
  }
}

}  // namespace
}  // namespace sim
