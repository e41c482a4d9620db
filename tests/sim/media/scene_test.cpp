// The counter that judges every stream must be readable whatever the camera shows.
#include "sim/media/scene.h"

#include <gtest/gtest.h>

#include <random>

#include "sim/media/frame_counter.h"

namespace sim {
namespace {

constexpr int kWidth = 480, kHeight = 320;

double between(std::mt19937& random, double low, double high) {
  return std::uniform_real_distribution<>(low, high)(random);
}

TEST(Scene, TheCounterIsReadableThroughEveryViewAndSetting) {
  std::mt19937 random(3);
  const auto below = [&](u32 limit) { return static_cast<u8>(random() % limit); };
  for (const bool full_range : {false, true}) {
    Scene scene("", kWidth, kHeight, full_range);
    for (u32 counter = 1000; counter < 1150; ++counter) {
      const PictureSettings settings{.brightness = below(16),
                                     .contrast = below(16),
                                     .saturation = below(16),
                                     .sharpness = below(16),
                                     .gamma = below(7),
                                     .gain = below(16),
                                     .picture_mode = static_cast<PictureMode>(kPlain + below(4)),
                                     .backlight = below(2) == 1,
                                     .auto_exposure = below(2) == 1,
                                     .auto_white_balance = below(2) == 1,
                                     .white_balance = static_cast<u16>(1800 + random() % 8200)};
      const AVFrame& picture = scene.picture(counter, {between(random, -170, 170), between(random, -90, 90),
                                                       between(random, 1, kMostZoom), settings});
      const LumaView strips{picture.data[0], kWidth, kHeight, static_cast<u32>(picture.linesize[0])};
      ASSERT_EQ(read_counter(strips, Strip::kTop), counter);
      ASSERT_EQ(read_counter(strips, Strip::kBottom), counter);
    }
  }
}

}  // namespace
}  // namespace sim
