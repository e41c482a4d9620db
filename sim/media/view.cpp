#include "sim/media/view.h"

#include <algorithm>
#include <cmath>
#include <utility>
#include <vector>

namespace sim {

namespace {

// The sum of the weights of two neighbours.
constexpr int kWhole = 256;

// For every sample of a picture's row or column: the first of its two neighbours in the unfolded scene, and
// the weight of the second one.
struct Taps {
  std::vector<int> first;
  std::vector<u16> weight;
};

Taps taps_of(const ViewLine& line, int count) {
  Taps taps{std::vector<int>(count), std::vector<u16>(count)};
  for (int i = 0; i < count; ++i) {
    const double middle = line.to_scene(i + 0.5) - 0.5;
    const double first = std::floor(middle);
    taps.first[i] = static_cast<int>(first);
    taps.weight[i] = static_cast<u16>(std::lround((middle - first) * kWhole));
  }
  return taps;
}

// Returns the place in a tile that repeats mirrored, counted along one period of twice its size.
int in_period(int place, int size) {
  const int rest = place % (2 * size);
  return rest < 0 ? rest + 2 * size : rest;
}

int fold(int place, int size) {
  const int at = in_period(place, size);
  return at < size ? at : 2 * size - 1 - at;
}

// Writes `count` samples of the scene, from `place` on, of a tile's row.
void unfold(const u8* row, int size, int place, int count, u8* to) {
  while (count > 0) {
    const int at = in_period(place, size);
    const int run = std::min(count, (at < size ? size : 2 * size) - at);
    if (at < size) {
      to = std::copy_n(row + at, run, to);
    } else {
      const u8* const end = row + 2 * size - at;
      to = std::reverse_copy(end - run, end, to);
    }
    place += run;
    count -= run;
  }
}

u8 mix(int first, int second, int weight) {
  return static_cast<u8>((first * (kWhole - weight) + second * weight + kWhole / 2) / kWhole);
}

void mix_rows(const u8* first, const u8* second, u16 weight, int count, u8* __restrict to) {
  const u16 rest = static_cast<u16>(kWhole - weight);
  for (int i = 0; i < count; ++i)
    to[i] = static_cast<u8>(static_cast<u16>(first[i] * rest + second[i] * weight + kWhole / 2) >> 8);
}

// Rows of the tile, stretched to the picture's width.
class RowStretcher {
 public:
  RowStretcher(const ViewLine& line, int size) : taps_(taps_of(line, size)), even_(line.per_pixel == 1) {
    const auto [low, high] = std::ranges::minmax(taps_.first);
    begin_ = low;
    window_.resize(static_cast<std::size_t>(high - low) + 2);
    for (int& first : taps_.first) first -= low;
  }

  void stretch(const u8* row, std::vector<u8>& to) {
    const int size = static_cast<int>(to.size());
    unfold(row, size, begin_, static_cast<int>(window_.size()), window_.data());
    if (even_) return mix_rows(window_.data(), window_.data() + 1, taps_.weight[0], size, to.data());
    for (int i = 0; i < size; ++i) {
      const u8* const at = window_.data() + taps_.first[i];
      to[i] = mix(at[0], at[1], taps_.weight[i]);
    }
  }

 private:
  Taps taps_;
  bool even_;  // true if neighbours in the picture are neighbours in the scene
  int begin_;
  std::vector<u8> window_;
};

// Returns the line for a plane with half as many samples.
ViewLine scaled(ViewLine line, int plane) {
  if (plane > 0) line.origin /= 2;
  return line;
}

void draw_plane(const AVFrame& tile, int plane, const ViewMap& map, AVFrame& picture) {
  const int shift = plane == 0 ? 0 : 1;
  const int width = tile.width >> shift, height = tile.height >> shift;
  RowStretcher stretcher(scaled(map.x, plane), width);
  const Taps rows = taps_of(scaled(map.y, plane), height);
  const auto stretch = [&](int place, std::vector<u8>& to) {
    stretcher.stretch(tile.data[plane] + fold(place, height) * tile.linesize[plane], to);
  };
  std::vector<u8> upper(width), lower(width);
  int held = rows.first[0] - 2;  // the place of the upper row held
  for (int row = 0; row < height; ++row) {
    const int place = rows.first[row];
    if (place == held + 1) {
      std::swap(upper, lower);
      stretch(place + 1, lower);
    } else if (place != held) {
      stretch(place, upper);
      stretch(place + 1, lower);
    }
    held = place;
    mix_rows(upper.data(), lower.data(), rows.weight[row], width,
             picture.data[plane] + row * picture.linesize[plane]);
  }
}

// Returns the line of a picture whose middle is `offset` pixels of the scene beyond the tile's middle.
ViewLine line_around(double offset, double per_pixel, int size) {
  const double middle = size / 2.0;
  return {middle + offset - middle * per_pixel, per_pixel};
}

}  // namespace

ViewMap map_of(const CameraView& view, int width, int height) {
  const double pixels_per_degree = width / kPictureDegrees;
  const double per_pixel = 1 / view.zoom;
  const bool mirrored = view.settings.picture_mode == kMirrored;
  return {line_around(view.pan * pixels_per_degree, mirrored ? -per_pixel : per_pixel, width),
          line_around(-view.tilt * pixels_per_degree, per_pixel, height)};
}

void draw_view(const AVFrame& tile, const ViewMap& map, AVFrame& picture) {
  for (int plane = 0; plane < 3; ++plane) draw_plane(tile, plane, map, picture);
}

}  // namespace sim
