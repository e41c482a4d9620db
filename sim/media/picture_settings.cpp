#include "sim/media/picture_settings.h"

#include <algorithm>
#include <cmath>
#include <vector>

namespace sim {

namespace {

constexpr int kGrey = 128;
constexpr double kNeutralKelvin = 4600;
constexpr int kNeutralSharpness = 3, kNeutralStep = 8;

// Maps luma from 0..1; the result may leave the range.
double toned(const PictureSettings& s, double luma) {
  if (!s.auto_exposure) luma *= s.gain / 15.0;
  if (s.backlight) luma += 1.5 * luma * (1 - luma) * (1 - luma);
  if (s.gamma > 0) luma = std::pow(luma, 1 / (1 + 0.2 * s.gamma));
  luma = 0.5 + (luma - 0.5) * (1 + 0.1 * (s.contrast - kNeutralStep));
  luma += 0.03 * (s.brightness - kNeutralStep);
  return s.picture_mode == kNegative ? 1 - luma : luma;
}

// Returns how far the white balance shifts V up and U down.
double warmth(const PictureSettings& s) {
  return s.auto_white_balance ? 0 : 24 * std::log2(s.white_balance / kNeutralKelvin);
}

// Maps the distance from grey.
double coloured(const PictureSettings& s, double distance, double shift) {
  if (s.picture_mode == kBlackAndWhite) return 0;
  distance = distance * s.saturation / kNeutralStep + shift;
  return s.picture_mode == kNegative ? -distance : distance;
}

u8 rounded(double value, u8 low, u8 high) {
  return static_cast<u8>(std::clamp<double>(std::round(value), low, high));
}

// Computes sums of weight 16 with the weights 1 2 1 in both directions; `above`, `here` and `below` are rows.
void sum_columns(const u8* above, const u8* here, const u8* below, int width, u16* __restrict sums) {
  for (int i = 0; i < width; ++i) sums[i + 1] = static_cast<u16>(above[i] + 2 * here[i] + below[i]);
  sums[0] = sums[1];
  sums[width + 1] = sums[width];
}

}  // namespace

PictureLook::PictureLook(const PictureSettings& settings, bool full_range)
    : darkest_(full_range ? 0 : 16), brightest_(full_range ? 255 : 235) {
  const double range = brightest_ - darkest_, shift = warmth(settings);
  for (int i = 0; i < 256; ++i) {
    const double luma = std::clamp((i - darkest_) / range, 0.0, 1.0);
    tables_[0][i] = rounded(darkest_ + range * toned(settings, luma), darkest_, brightest_);
    tables_[1][i] = rounded(kGrey + coloured(settings, i - kGrey, -shift), 0, 255);
    tables_[2][i] = rounded(kGrey + coloured(settings, i - kGrey, shift), 0, 255);
  }
  const auto changes = [&](int plane, int from, int to) {
    for (int i = from; i <= to; ++i)
      if (tables_[plane][i] != i) return true;
    return false;
  };
  tables_change_ = changes(0, darkest_, brightest_) || changes(1, 0, 255) || changes(2, 0, 255);
  const int steps = settings.sharpness - kNeutralSharpness;
  sharpening_ = steps < 0 ? steps * 16 / kNeutralSharpness : steps * 4;
}

void PictureLook::apply(AVFrame& picture) const {
  for (int plane = 0; tables_change_ && plane < 3; ++plane) {
    const int shift = plane == 0 ? 0 : 1;
    for (int row = 0; row < picture.height >> shift; ++row) {
      u8* const samples = picture.data[plane] + row * picture.linesize[plane];
      for (int i = 0; i < picture.width >> shift; ++i) samples[i] = tables_[plane][samples[i]];
    }
  }
  if (sharpening_ != 0) sharpen(picture);
}

void PictureLook::sharpen(AVFrame& picture) const {
  const int width = picture.width;
  std::vector<u8> above, here(picture.data[0], picture.data[0] + width);
  above = here;
  std::vector<u16> sums(static_cast<std::size_t>(width) + 2);
  for (int row = 0; row < picture.height; ++row) {
    u8* const luma = picture.data[0] + row * picture.linesize[0];
    const u8* const below = row + 1 < picture.height ? luma + picture.linesize[0] : luma;
    std::copy_n(luma, width, here.begin());
    sum_columns(above.data(), here.data(), below, width, sums.data());
    for (int i = 0; i < width; ++i) {
      const int blurred = sums[i] + 2 * sums[i + 1] + sums[i + 2];
      const int sharp = here[i] + ((sharpening_ * (16 * here[i] - blurred) + 128) >> 8);
      luma[i] = static_cast<u8>(std::clamp<int>(sharp, darkest_, brightest_));
    }
    std::swap(above, here);
  }
}

}  // namespace sim
