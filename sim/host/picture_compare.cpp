#include "sim/host/picture_compare.h"

#include <algorithm>
#include <array>
#include <cmath>

#include "sim/media/frame_counter.h"

extern "C" {
#include <libavutil/pixdesc.h>
}

namespace sim {

namespace {

constexpr int kMeasuredWidth = 320;
// In parts of the width and of the height.
constexpr double kFurthestShift = 0.45;
constexpr double kMostScale = 10;

AVPixelFormat format_of(const AVFrame& picture) { return static_cast<AVPixelFormat>(picture.format); }

// Returns the part between the strips, area-averaged, in full range and with a chroma sample for every pixel.
AvPtr<AVFrame> shrink(const AVFrame& picture) {
  const int strip = static_cast<int>(strip_height(static_cast<u32>(picture.width)));
  const int rows = picture.height - 2 * strip;
  AvPtr<AVFrame> small(av_frame_alloc());
  small->format = AV_PIX_FMT_YUVJ444P;
  small->width = kMeasuredWidth;
  small->height = std::max(kMeasuredWidth * rows / picture.width, 1);
  AvPtr<SwsContext> scaler(sws_getContext(picture.width, rows, format_of(picture), small->width,
                                          small->height, AV_PIX_FMT_YUVJ444P, SWS_AREA, nullptr, nullptr,
                                          nullptr));
  if (!scaler || av_frame_get_buffer(small.get(), 0) < 0) return nullptr;
  const u8* planes[4] = {};
  const int chroma_shift = av_pix_fmt_desc_get(format_of(picture))->log2_chroma_h;
  for (int plane = 0; plane < 3 && picture.data[plane]; ++plane)
    planes[plane] = picture.data[plane] + (plane ? strip >> chroma_shift : strip) * picture.linesize[plane];
  sws_scale(scaler.get(), planes, picture.linesize, 0, rows, small->data, small->linesize);
  return small;
}

// Gathers pairs of samples, and computes how similar they are regardless of brightness and contrast.
class Correlation {
 public:
  void add(double a, double b) {
    ++count_;
    a_ += a, b_ += b;
    aa_ += a * a, bb_ += b * b, ab_ += a * b;
  }
  // Returns -1..1; 0 if one side is flat.
  double value() const {
    const double spread = (count_ * aa_ - a_ * a_) * (count_ * bb_ - b_ * b_);
    const double least = count_ * count_ * count_ * count_ * 1e-6;
    return spread > least ? (count_ * ab_ - a_ * b_) / std::sqrt(spread) : 0;
  }

 private:
  double count_ = 0, a_ = 0, b_ = 0, aa_ = 0, bb_ = 0, ab_ = 0;
};

// The means of a picture's cells, row by row.
struct Grid {
  int columns, rows;
  std::vector<float> cells;
};

// Adds up any upright rectangle of a picture, whose edges may divide pixels.
class AreaSums {
 public:
  explicit AreaSums(const MeasuredPicture& picture)
      : width_(picture.width), height_(picture.height), sums_((width_ + 1) * (height_ + 1)) {
    for (u32 y = 0; y < height_; ++y) {
      double row = 0;
      for (u32 x = 0; x < width_; ++x) {
        row += picture.luma[y * width_ + x];
        sums_[(y + 1) * (width_ + 1) + x + 1] = sums_[y * (width_ + 1) + x + 1] + row;
      }
    }
  }

  // Returns the part around the picture's middle that is `share` of it wide and high, in that many cells.
  Grid grid(double share, int columns, int rows) const;

 private:
  // Returns the sum of everything to the left of and above a point, in pixels.
  double sum(double x, double y) const;

  u32 width_, height_;
  std::vector<double> sums_;
};

double AreaSums::sum(double x, double y) const {
  x = std::clamp(x, 0.0, static_cast<double>(width_));
  y = std::clamp(y, 0.0, static_cast<double>(height_));
  const u32 left = std::min(static_cast<u32>(x), width_ - 1),
            top = std::min(static_cast<u32>(y), height_ - 1);
  const double* above = &sums_[top * (width_ + 1) + left];
  const double* below = above + width_ + 1;
  return std::lerp(std::lerp(above[0], above[1], x - left), std::lerp(below[0], below[1], x - left), y - top);
}

Grid AreaSums::grid(double share, int columns, int rows) const {
  const double cell_width = width_ * share / columns, cell_height = height_ * share / rows;
  const double left = width_ * (1 - share) / 2, top = height_ * (1 - share) / 2;
  Grid grid{columns, rows, {}};
  std::vector<double> above(static_cast<std::size_t>(columns) + 1), below = above;
  const auto fill = [&](std::vector<double>& line, int row) {
    for (int i = 0; i <= columns; ++i) line[i] = sum(left + i * cell_width, top + row * cell_height);
  };
  fill(above, 0);
  for (int row = 1; row <= rows; ++row) {
    fill(below, row);
    for (int i = 0; i < columns; ++i) {
      const double cell = below[i + 1] - below[i] - above[i + 1] + above[i];
      grid.cells.push_back(static_cast<float>(cell / (cell_width * cell_height)));
    }
    above.swap(below);
  }
  return grid;
}

// Correlates the cells of `before` with those of `after` that are so many cells further right and down.
double correlate(const Grid& before, const Grid& after, int right, int down) {
  Correlation correlation;
  for (int y = std::max(0, -down); y < std::min(before.rows, before.rows - down); ++y) {
    const float* from = &before.cells[y * before.columns];
    const float* to = &after.cells[(y + down) * after.columns + right];
    for (int x = std::max(0, -right); x < std::min(before.columns, before.columns - right); ++x)
      correlation.add(from[x], to[x]);
  }
  return correlation.value();
}

struct CellShift {
  int right = 0, down = 0;
  double correlation = -1;
};

// Returns the best shift, at most `reach` cells from `around` and within kFurthestShift.
CellShift best_shift(const Grid& before, const Grid& after, CellShift around, int reach) {
  const int most_right = static_cast<int>(before.columns * kFurthestShift);
  const int most_down = static_cast<int>(before.rows * kFurthestShift);
  CellShift best;
  for (int down = -most_down; down <= most_down; ++down) {
    for (int right = -most_right; right <= most_right; ++right) {
      if (std::abs(down - around.down) > reach || std::abs(right - around.right) > reach) continue;
      const double correlation = correlate(before, after, right, down);
      if (correlation > best.correlation) best = {right, down, correlation};
    }
  }
  return best;
}

// For a factor above 1, the middle of `before` fills `after`; below 1, it is the other way round.
double correlation_at(const AreaSums& before, const AreaSums& after, double factor) {
  constexpr int kColumns = 64, kRows = 36;
  const Grid first = before.grid(std::min(1 / factor, 1.0), kColumns, kRows);
  const Grid second = after.grid(std::min(factor, 1.0), kColumns, kRows);
  return correlate(first, second, 0, 0);
}

SceneScale best_scale(const AreaSums& before, const AreaSums& after, double least, double most, double step) {
  SceneScale best{1, -1};
  for (double factor = least; factor <= most; factor *= step) {
    const double correlation = correlation_at(before, after, factor);
    if (correlation > best.correlation) best = {factor, correlation};
  }
  return best;
}

}  // namespace

MeasuredPicture measure(const AVFrame& picture) {
  const auto small = shrink(picture);
  if (!small) return {};
  MeasuredPicture measured{static_cast<u32>(small->width), static_cast<u32>(small->height), {}};
  double sum = 0, squares = 0, chroma = 0;
  for (int y = 0; y < small->height; ++y) {
    std::array<const u8*, 3> row;
    for (int plane = 0; plane < 3; ++plane) row[plane] = small->data[plane] + y * small->linesize[plane];
    measured.luma.insert(measured.luma.end(), row[0], row[0] + small->width);
    for (int x = 0; x < small->width; ++x) {
      sum += row[0][x];
      squares += row[0][x] * row[0][x];
      chroma += std::hypot(row[1][x] - 128, row[2][x] - 128);
    }
  }
  const auto count = static_cast<double>(measured.luma.size());
  measured.mean_luma = sum / count;
  measured.luma_deviation =
      std::sqrt(std::max(squares / count - measured.mean_luma * measured.mean_luma, 0.0));
  measured.colourfulness = chroma / count;
  return measured;
}

SceneShift find_shift(const MeasuredPicture& before, const MeasuredPicture& after) {
  const AreaSums first(before), second(after);
  CellShift best;
  int reach = kMeasuredWidth;  // everywhere in the coarsest grid, then near the best shift
  for (const int size : {4, 2, 1}) {
    const int columns = static_cast<int>(before.width) / size, rows = static_cast<int>(before.height) / size;
    best = best_shift(first.grid(1, columns, rows), second.grid(1, columns, rows),
                      {2 * best.right, 2 * best.down}, reach);
    reach = 2;
  }
  const double width = before.width;
  return {best.right / width, -best.down / width, best.correlation};
}

SceneScale find_scale(const MeasuredPicture& before, const MeasuredPicture& after) {
  constexpr double kCoarse = 1.01, kFine = 1.001;
  const AreaSums first(before), second(after);
  const SceneScale near = best_scale(first, second, 1 / kMostScale, kMostScale * kFine, kCoarse);
  return best_scale(first, second, near.factor / kCoarse, near.factor * kCoarse, kFine);
}

}  // namespace sim
