#include "sim/camera_head.h"

#include <gtest/gtest.h>

#include <cmath>
#include <functional>
#include <thread>

#include "sim/wait_on.h"

using sim::CameraHead;
using sim::kMostPanSpeed;
using sim::kMostTiltSpeed;
using sim::kZoomEnd;

namespace {

/// Seconds until nothing moves; 10 when that does not happen.
double until_still(const CameraHead& head) {
  const i64 begin = sim::monotonic_ns();
  const auto passed = [=] { return static_cast<double>(sim::monotonic_ns() - begin) * 1e-9; };
  while (head.moving() && passed() < 10) std::this_thread::sleep_for(std::chrono::milliseconds(2));
  return passed();
}

}  // namespace

TEST(CameraHeadTest, TurnsEvenlyAtTheSpeedOfItsNumberUpToTheTarget) {
  CameraHead head;
  head.turn_to({-200, 100}, 6, 3);  // 15 degrees at 30 a second, 7.5 degrees at 15
  double last = 0;
  for (int i = 0; i < 20; ++i) {
    const double pan = head.view().pan;
    EXPECT_LE(pan, last) << "never turns back";
    EXPECT_NEAR(head.view().tilt, -pan / 2, 1) << "both arrive together";
    last = pan;
    std::this_thread::sleep_for(std::chrono::milliseconds(5));
  }
  EXPECT_LT(last, -1);
  EXPECT_GT(last, -15) << "still on its way";
  EXPECT_NEAR(until_still(head), 0.4, 0.2);
  EXPECT_NEAR(head.view().pan, -15, 1e-9);
  EXPECT_EQ(head.position().pan, -200);
  EXPECT_EQ(head.position().tilt, 100);
}

TEST(CameraHeadTest, StopsWhereItIsToldToAndAtItsLimits) {
  CameraHead head;
  head.turn({1, -1}, kMostPanSpeed, kMostTiltSpeed);
  std::this_thread::sleep_for(std::chrono::milliseconds(50));
  head.turn({0, 0}, 1, 1);
  EXPECT_FALSE(head.moving());
  const sim::CameraView stopped = head.view();
  EXPECT_GT(stopped.pan, 1);
  EXPECT_LT(stopped.tilt, -1);
  EXPECT_EQ(head.view(), stopped);

  head.turn({1, -1}, 10'000, 10'000);  // no faster than the fastest
  EXPECT_GT(until_still(head), 0.7);
  EXPECT_EQ(head.view().pan, 170);
  EXPECT_EQ(head.view().tilt, -90);
  head.turn_to({-0x8000, 0x7FFF}, kMostPanSpeed, kMostTiltSpeed);
  std::this_thread::sleep_for(std::chrono::milliseconds(20));
  head.turn({0, 1}, kMostPanSpeed, kMostTiltSpeed);
  const double pan = head.view().pan;
  EXPECT_LT(pan, 170);
  until_still(head);
  EXPECT_EQ(head.view().pan, pan) << "a drive of one axis stops the other";
  EXPECT_EQ(head.view().tilt, 90);
}

TEST(CameraHeadTest, TheLensMagnifiesEvenlyByFactorAndCanBeDriven) {
  CameraHead head;
  EXPECT_EQ(head.view().zoom, 1);
  head.zoom_to(kZoomEnd / 4);
  EXPECT_TRUE(head.moving());
  EXPECT_NEAR(until_still(head), 0.5, 0.2);
  EXPECT_NEAR(head.view().zoom, std::pow(sim::kMostZoom, 0.25), 1e-9);
  head.zoom(1);
  std::this_thread::sleep_for(std::chrono::milliseconds(50));
  head.zoom(0);
  EXPECT_FALSE(head.moving());
  EXPECT_GT(head.zoom_position(), kZoomEnd / 4);
  head.zoom(-1);
  until_still(head);
  EXPECT_EQ(head.zoom_position(), 0);
  head.zoom_to(2 * kZoomEnd);
  until_still(head);
  EXPECT_EQ(head.zoom_position(), kZoomEnd);
  EXPECT_NEAR(head.view().zoom, sim::kMostZoom, 1e-9);
}
