// Measuring pictures of a scene that is known: shifted, enlarged, noisy, in the stream's pixel formats.
#include "sim/picture_compare.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <iterator>
#include <random>

#include "sim/frame_counter.h"

namespace sim {
namespace {

constexpr int kWidth = 640, kHeight = 360;

/// A plane with detail of many sizes that repeats nowhere near, 0..1.
float scene(float x, float y) {
  constexpr struct {
    float across, down;  ///< radians a pixel
  } kWaves[] = {{-0.011F, 0.010F}, {0.002F, -0.028F}, {0.034F, 0.042F},
                {-0.10F, -0.02F},  {0.16F, -0.11F},   {-0.05F, 0.37F}};
  float value = 0;
  for (const auto& wave : kWaves) value += std::sin(x * wave.across + y * wave.down);
  return (value / std::size(kWaves) + 1) / 2;
}

struct Look {
  float right = 0, down = 0;  ///< pixels by which the scene lies further
  float scale = 1;
  float gain = 1, offset = 0;
  float noise = 0;
  AVPixelFormat format = AV_PIX_FMT_YUVJ420P;
};

AvPtr<AVFrame> draw(const Look& look) {
  av_log_set_level(AV_LOG_QUIET);
  AvPtr<AVFrame> picture(av_frame_alloc());
  picture->width = kWidth;
  picture->height = kHeight;
  picture->format = look.format;
  av_frame_get_buffer(picture.get(), 0);
  const int step = look.format == AV_PIX_FMT_YUYV422 ? 2 : 1;
  for (int plane = 0; plane < 3 && picture->data[plane]; ++plane)
    std::fill_n(picture->data[plane], picture->linesize[plane] * (plane ? kHeight / 2 : kHeight), u8{128});
  std::minstd_rand random(5);
  std::uniform_real_distribution<float> noise(-2, 2);
  for (int y = 0; y < kHeight; ++y) {
    for (int x = 0; x < kWidth; ++x) {
      const float from_right = static_cast<float>(x - kWidth / 2) - look.right;
      const float from_down = static_cast<float>(y - kHeight / 2) - look.down;
      const float seen = scene(from_right / look.scale, from_down / look.scale);
      const float luma = 128 + look.offset + (80 * seen - 40) * look.gain + look.noise * noise(random);
      picture->data[0][y * picture->linesize[0] + x * step] = static_cast<u8>(std::clamp(luma, 0.0F, 255.0F));
    }
  }
  return picture;
}

MeasuredPicture measured(const Look& look) { return measure(*draw(look)); }

TEST(Measure, BrightnessContrastAndColour) {
  const MeasuredPicture plain = measured({});
  EXPECT_NEAR(plain.mean_luma, 128, 3);
  EXPECT_GT(plain.luma_deviation, 5);
  EXPECT_NEAR(plain.colourfulness, 0, 1);
  const MeasuredPicture changed = measured({.gain = 1.5F, .offset = 40});
  EXPECT_NEAR(changed.mean_luma - plain.mean_luma, 40, 2);
  EXPECT_NEAR(changed.luma_deviation / plain.luma_deviation, 1.5, 0.05);

  auto coloured = draw({});
  for (int i = 0; i < coloured->linesize[1] * kHeight / 2; ++i)
    coloured->data[1][i] = 128 + 30, coloured->data[2][i] = 128 - 40;
  EXPECT_NEAR(measure(*coloured).colourfulness, 50, 2);
}

TEST(Measure, LeavesTheCounterOutInEveryFormat) {
  auto picture = draw({.gain = 0});
  burn_counter(*picture, 0x0F0F0F0F);
  EXPECT_LT(measure(*picture).luma_deviation, 1);
  const MeasuredPicture packed = measured({.format = AV_PIX_FMT_YUYV422});
  const MeasuredPicture planar = measured({.format = AV_PIX_FMT_YUV420P});
  EXPECT_NEAR(packed.mean_luma, planar.mean_luma, 1);
  EXPECT_GT(find_shift(packed, planar).correlation, 0.99);
}

TEST(Shift, IsFoundWithinAPartOfAPercent) {
  const MeasuredPicture before = measured({});
  for (const auto& [right, down] :
       {std::pair{0.F, 0.F}, {4, -4}, {-96, 0}, {100, 60}, {285, 0}, {-280, 140}}) {
    const Look look{.right = right, .down = down, .gain = 0.6F, .offset = 30, .noise = 4};
    const SceneShift shift = find_shift(before, measured(look));
    EXPECT_NEAR(shift.right, right / kWidth, 0.002) << right << ", " << down;
    EXPECT_NEAR(shift.up, -down / kWidth, 0.002) << right << ", " << down;
    EXPECT_GT(shift.correlation, 0.9) << right << ", " << down;
  }
}

TEST(Scale, IsFoundBothWays) {
  const MeasuredPicture before = measured({});
  for (const float factor : {0.12F, 0.25F, 0.5F, 0.93F, 1.0F, 1.3F, 2.0F, 4.0F, 9.0F}) {
    const SceneScale scale = find_scale(before, measured({.scale = factor, .noise = 4}));
    EXPECT_NEAR(scale.factor / factor, 1, 0.02) << factor;
    EXPECT_GT(scale.correlation, 0.8) << factor;
  }
}

TEST(Comparing, FindsNothingWhereThereIsNothing) {
  const MeasuredPicture scene = measured({}), flat = measured({.gain = 0});
  const MeasuredPicture noise = measured({.gain = 0, .noise = 40});
  for (const MeasuredPicture* other : {&flat, &noise}) {
    EXPECT_LT(find_shift(scene, *other).correlation, 0.5);
    EXPECT_LT(find_scale(*other, scene).correlation, 0.5);
  }
  EXPECT_EQ(find_shift(flat, flat).correlation, 0);
}

}  // namespace
}  // namespace sim
