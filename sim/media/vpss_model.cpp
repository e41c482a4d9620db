#include "sim/media/vpss_model.h"

#include <algorithm>

#include "sim/seam/wait_on.h"

namespace sim {

namespace {

constexpr i64 kPatienceWithTaker = 300 * kMillisecond;
constexpr u32 kHandleMask = 0xFFFFFFFF >> 2;

}  // namespace

VpssModel::VpssModel(bool yuv422, u32 extra_stride) : yuv422_(yuv422), extra_stride_(extra_stride) {
  set_alive(true);
}

void VpssModel::set_alive(bool alive) {
  channel_.alive = alive;
  if (!alive) wake(channel_.ready);
}

VpssModel::Layout VpssModel::layout_of(const AVFrame& picture) const {
  const u32 stride = picture.width + extra_stride_;
  const u32 chroma_rows = yuv422_ ? picture.height : picture.height / 2;
  return {{stride, stride}, chroma_rows, stride * (picture.height + chroma_rows)};
}

// Returns a free buffer, or the one with the oldest picture that was never released.
u32 VpssModel::choose_buffer() const {
  u32 best = 0, best_age = 0;
  for (u32 i = 0; i < kVpssPictures; ++i) {
    const u32 word = channel_.owner[i];
    if (vpss_owner(word) == kVpssFree) return i;
    const u32 age = (handle_ - (word >> 2)) & kHandleMask;
    if (vpss_owner(word) == kVpssHeld && age >= best_age) best = i, best_age = age;
  }
  return best;
}

namespace {

// The scene of a JPEG stream uses the full range.
u8 video_luma(u8 luma) { return std::clamp(luma, u8{16}, u8{235}); }

}  // namespace

void VpssModel::fill(u32 buffer, const AVFrame& picture, const Layout& layout) {
  const u32 luma = kVpssPictureBase + buffer * kVpssPictureSize;
  const u32 chroma = luma + layout.stride[0] * picture.height;
  for (int row = 0; row < picture.height; ++row) {
    const u8* from = picture.data[0] + row * picture.linesize[0];
    std::transform(from, from + picture.width, memory_.at(luma) + row * layout.stride[0], video_luma);
  }
  for (u32 row = 0; row < layout.chroma_rows; ++row) {
    const u32 from = yuv422_ ? row / 2 : row;
    const u8* u = picture.data[1] + from * picture.linesize[1];
    const u8* v = picture.data[2] + from * picture.linesize[2];
    u8* to = memory_.at(chroma) + row * layout.stride[1];
    for (int i = 0; i < picture.width / 2; ++i) to[2 * i] = v[i], to[2 * i + 1] = u[i];
  }
  channel_.picture[buffer] = {.width = static_cast<u32>(picture.width),
                              .height = static_cast<u32>(picture.height),
                              .pixel_format = yuv422_ ? kVpssYuv422SemiPlanar : kVpssYuv420SemiPlanar,
                              .phys_addr = {luma, chroma},
                              .stride = {layout.stride[0], layout.stride[1]},
                              .handle = handle_};
}

bool VpssModel::ready() const {
  for (const auto& owner : channel_.owner)
    if (vpss_owner(owner) == kVpssReady) return true;
  return false;
}

void VpssModel::take_back() {
  for (auto& owner : channel_.owner) {
    u32 word = owner;
    if (vpss_owner(word) == kVpssReady) owner.compare_exchange_strong(word, kVpssFree);
  }
}

void VpssModel::wait_for_taker() {
  const i64 deadline = monotonic_ns() + (taker_seen_ ? kPatienceWithTaker : 0);
  taker_seen_ = wait_on(channel_.taken, deadline, [this] { return !ready(); });
}

void VpssModel::publish(const AVFrame& picture) {
  channel_.waiting = 0;
  const Layout layout = layout_of(picture);
  if (layout.size > kVpssPictureSize) return;
  const u32 buffer = choose_buffer();
  handle_ = (handle_ + 1) & kHandleMask;
  channel_.owner[buffer] = vpss_word(handle_, kVpssFilling);
  fill(buffer, picture, layout);
  take_back();
  channel_.owner[buffer] = vpss_word(handle_, kVpssReady);
  wake(channel_.ready);
}

void VpssModel::clear() {
  take_back();
  taker_seen_ = false;
}

std::vector<u8> yuy2_payload(const AVFrame& picture) {
  std::vector<u8> payload;
  payload.reserve(2u * picture.width * picture.height);
  for (int row = 0; row < picture.height; ++row) {
    const u8* y = picture.data[0] + row * picture.linesize[0];
    const u8* u = picture.data[1] + row / 2 * picture.linesize[1];
    const u8* v = picture.data[2] + row / 2 * picture.linesize[2];
    for (int i = 0; i < picture.width / 2; ++i) {
      for (u8 byte : {y[2 * i], u[i], y[2 * i + 1], v[i]}) payload.push_back(byte);
    }
  }
  return payload;
}

}  // namespace sim
