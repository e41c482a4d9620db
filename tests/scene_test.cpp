// What the scene looks like through view and settings.
#include "sim/scene.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <cmath>
#include <random>

#include "sim/frame_counter.h"

namespace sim {
namespace {

constexpr int kWidth = 480, kHeight = 320;  // 8 pixels a degree
constexpr int kStrip = 12;                  ///< rows of a counter strip
constexpr u32 kCounter = 20;

double between(std::mt19937& random, double low, double high) {
  return std::uniform_real_distribution<>(low, high)(random);
}

/// The scene's picture between the strips, as measured.
struct Look {
  double mean = 0, deviation = 0, colour = 0, warmth = 0;
  double detail = 0;  ///< mean square of the steps from row to row
  u8 darkest = 255, brightest = 0;
};

Look look(Scene& scene, const CameraView& view) {
  const AVFrame& picture = scene.picture(kCounter, view);
  const auto part = [&](int plane) {
    std::vector<u8> samples;
    const int shift = plane == 0 ? 0 : 1;
    for (int row = kStrip >> shift; row < (kHeight - kStrip) >> shift; ++row) {
      const u8* from = picture.data[plane] + row * picture.linesize[plane];
      samples.insert(samples.end(), from, from + (kWidth >> shift));
    }
    return samples;
  };
  const std::vector<u8> luma = part(0), u = part(1), v = part(2);
  Look result;
  double square = 0;
  for (const u8 value : luma) result.mean += value, square += value * value;
  const auto count = static_cast<double>(luma.size());
  result.mean /= count;
  result.deviation = std::sqrt(square / count - result.mean * result.mean);
  for (std::size_t i = kWidth; i < luma.size(); ++i)
    result.detail += std::pow(luma[i] - luma[i - kWidth], 2) / count;
  for (std::size_t i = 0; i < u.size(); ++i) {
    result.colour += std::hypot(u[i] - 128, v[i] - 128) * 4 / count;
    result.warmth += (v[i] - u[i]) * 4 / count;
  }
  const auto [low, high] = std::ranges::minmax(luma);
  result.darkest = low, result.brightest = high;
  return result;
}

TEST(SceneSettings, EveryStepChangesThePictureItsWay) {
  const struct {
    const char* name;
    int first, last;
    void (*set)(PictureSettings&, int);
    double Look::*rises;
  } rows[] = {
      {"brightness", 0, 15, [](auto& s, int v) { s.brightness = static_cast<u16>(v); }, &Look::mean},
      {"contrast", 0, 15, [](auto& s, int v) { s.contrast = static_cast<u16>(v); }, &Look::deviation},
      {"saturation", 0, 15, [](auto& s, int v) { s.saturation = static_cast<u16>(v); }, &Look::colour},
      {"sharpness", 0, 15, [](auto& s, int v) { s.sharpness = static_cast<u16>(v); }, &Look::detail},
      {"gamma", 0, 6, [](auto& s, int v) { s.gamma = static_cast<u8>(v); }, &Look::mean},
      {"gain", 4, 15,
       [](auto& s, int v) {
         s.auto_exposure = false;
         s.gain = static_cast<u8>(v);
       },
       &Look::mean},
      {"white balance", 2, 10,
       [](auto& s, int v) {
         s.auto_white_balance = false;
         s.white_balance = static_cast<u16>(1000 * v);
       },
       &Look::warmth},
      {"backlight", 0, 1, [](auto& s, int v) { s.backlight = v; }, &Look::mean},
  };
  for (const bool full_range : {false, true}) {
    Scene scene("", kWidth, kHeight, full_range);
    for (const auto& row : rows) {
      SCOPED_TRACE(row.name);
      std::array<double, 16> values{};
      for (int value = row.first; value <= row.last; ++value) {
        CameraView view;
        row.set(view.settings, value);
        const Look seen = look(scene, view);
        values[value] = seen.*row.rises;
        if (value > row.first) {
          EXPECT_GT(values[value], values[value - 1] + 0.2) << value;
        }
        if (!full_range) {
          EXPECT_TRUE(seen.darkest >= 16 && seen.brightest <= 235) << value;
        }
      }
    }
  }
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
