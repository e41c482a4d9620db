#include "sim/media/scene.h"

#include <algorithm>
#include <cmath>
#include <utility>
#include <vector>

#include "sim/media/frame_counter.h"

namespace sim {

namespace {

struct Colour {
  u8 y, u, v;
};

constexpr u8 kLumaMin = 16, kLumaMax = 235;

constexpr Colour kBars[] = {{180, 128, 128}, {162, 44, 142}, {131, 156, 44}, {112, 72, 58},
                            {84, 184, 198},  {65, 100, 212}, {35, 212, 114}, {16, 128, 128}};

AvPtr<AVFrame> new_picture(int width, int height, bool full_range) {
  AvPtr<AVFrame> picture(av_frame_alloc());
  picture->width = width;
  picture->height = height;
  picture->format = full_range ? AV_PIX_FMT_YUVJ420P : AV_PIX_FMT_YUV420P;
  picture->color_range = full_range ? AVCOL_RANGE_JPEG : AVCOL_RANGE_MPEG;
  av_frame_get_buffer(picture.get(), 0);
  return picture;
}

// Colour bars in the upper half, then rings that become finer outwards, then a ramp.
Colour card_colour(const AVFrame& card, int x, int y) {
  const int width = card.width, height = card.height;
  if (y < height / 2) return kBars[8 * x / width];
  if (y < height * 3 / 4) {
    const float dx = static_cast<float>(x - width / 2), dy = static_cast<float>(y - height * 5 / 8);
    const float phase = (dx * dx + dy * dy) * 1.5F / static_cast<float>(width);
    return {static_cast<u8>(126 + 80 * std::cos(phase)), 128, 128};
  }
  const int ramp = (kLumaMax - kLumaMin) * x / width;
  return {static_cast<u8>(kLumaMin + ramp), static_cast<u8>(64 + 128 * y / height), 128};
}

void draw_card(AVFrame& card) {
  for (int y = 0; y < card.height; ++y) {
    for (int x = 0; x < card.width; ++x) {
      const Colour colour = card_colour(card, x, y);
      card.data[0][y * card.linesize[0] + x] = colour.y;
      if ((x | y) & 1) continue;
      card.data[1][y / 2 * card.linesize[1] + x / 2] = colour.u;
      card.data[2][y / 2 * card.linesize[2] + x / 2] = colour.v;
    }
  }
}

// Calls `change` for every sample of the plane.
template <typename Change>
void for_samples(AVFrame& picture, int plane, Change change) {
  const int shift = plane == 0 ? 0 : 1;
  for (int row = 0; row < picture.height >> shift; ++row) {
    u8* first = picture.data[plane] + row * picture.linesize[plane];
    std::transform(first, first + (picture.width >> shift), first, change);
  }
}

void stretch_to_full_range(AVFrame& picture) {
  for_samples(picture, 0, [](u8 y) { return static_cast<u8>((y - kLumaMin) * 255 / 219); });
  for (int plane : {1, 2})
    for_samples(picture, plane, [](u8 c) { return static_cast<u8>(128 + (c - 128) * 127 / 112); });
}

void clip_luma(AVFrame& picture) {
  for_samples(picture, 0, [](u8 y) { return std::clamp(y, kLumaMin, kLumaMax); });
}

// Counts 0, step, ... up to `room`, and back again.
int to_and_fro(u32 counter, int step, int room) {
  const u32 turn = static_cast<u32>(std::max(room / step, 1));
  const u32 phase = counter % (2 * turn);
  return step * static_cast<int>(phase < turn ? phase : 2 * turn - phase);
}

// Samples of a picture's row or column, in pairs, since two of them share their chroma.
struct Span {
  int first, end;
};

// Returns what a part of the scene covers of `room` pixels.
Span covered(const ViewLine& line, double from, double to, int room) {
  const auto even = [&](double scene) {
    return 2 * static_cast<int>(std::lround(std::clamp<double>(line.to_picture(scene), 0, room) / 2));
  };
  const auto [first, end] = std::minmax({even(from), even(to)});
  return {first, end};
}

}  // namespace

Scene::Scene(const std::string& source, int width, int height, bool full_range)
    : full_range_(full_range),
      source_(source.empty() ? nullptr : Source::open(source)),
      tile_(new_picture(width, height, full_range)),
      look_(view_.settings, full_range),
      seen_(new_picture(width, height, full_range)),
      picture_(new_picture(width, height, full_range)) {
  if (source_) return;
  draw_card(*tile_);
  if (full_range) stretch_to_full_range(*tile_);
}

bool Scene::shows(int width, int height, bool full_range) const {
  return picture_->width == width && picture_->height == height && full_range_ == full_range;
}

// Returns true if the tile has changed.
bool Scene::next_tile() {
  if (!source_ || !source_->next(*tile_)) return false;
  if (!full_range_) clip_luma(*tile_);
  return true;
}

AVFrame& Scene::picture(u32 counter, const CameraView& view) {
  const bool changed = next_tile() || view != view_;
  if (view != view_) look(view);
  const bool straight = map_ == ViewMap{} && look_.neutral();
  if (changed && !straight) {
    draw_view(*tile_, map_, *seen_);
    look_.apply(*seen_);
  }
  av_frame_make_writable(picture_.get());
  av_frame_copy(picture_.get(), straight ? tile_.get() : seen_.get());
  if (!source_) draw_moving_part(counter);
  burn_counter(*picture_, counter);
  return *picture_;
}

void Scene::look(const CameraView& view) {
  if (view.settings != view_.settings) look_ = PictureLook(view.settings, full_range_);
  view_ = view;
  map_ = map_of(view, picture_->width, picture_->height);
}

// Draws a shaded square that crosses the tile in the middle of the scene.
void Scene::draw_moving_part(u32 counter) {
  AVFrame& picture = *picture_;
  const int size = picture.height / 16 * 2;
  const int left = to_and_fro(counter, 4, picture.width - size);
  const int top = to_and_fro(counter, 2, picture.height - size);
  const Span columns = covered(map_.x, left, left + size, picture.width);
  const Span rows = covered(map_.y, top, top + size, picture.height);
  std::vector<u8> shades;
  for (int column = columns.first; column < columns.end; ++column) {
    const int place = std::clamp(static_cast<int>(map_.x.to_scene(column + 0.5)) - left, 0, size - 1);
    shades.push_back(look_.changed(0, static_cast<u8>(60 + 120 * place / size)));
  }
  for (int row = rows.first; row < rows.end; ++row)
    std::ranges::copy(shades, picture.data[0] + row * picture.linesize[0] + columns.first);
  for (const auto& [plane, sample] : {std::pair{1, u8{90}}, {2, u8{200}}}) {
    for (int row = rows.first / 2; row < rows.end / 2; ++row) {
      u8* const chroma = picture.data[plane] + row * picture.linesize[plane];
      std::fill(chroma + columns.first / 2, chroma + columns.end / 2, look_.changed(plane, sample));
    }
  }
}

}  // namespace sim
