#include "uvc/uvc_gadget_yuv.h"

#include <algorithm>
#include <cstring>

namespace {

// How a layout is made. Sizes are in halves of width * height: 3 is width * height * 3 / 2.
struct LayoutRow {
  u32 needed_halves;
  u32 reported_halves;
  u32 luma_rows_per_chroma_row;
  bool planar;
};
// Deliberate: semi-planar 4:2:2 reports fewer bytes than it writes, as its callers expect.
constexpr LayoutRow kLayouts[] = {
    /* kPlanar420     */ {3, 3, 2, true},
    /* kPlanar422     */ {4, 4, 1, true},
    /* kSemiPlanar420 */ {3, 3, 2, false},
    /* kSemiPlanar422 */ {4, 3, 1, false},
    /* kPackedYuy2    */ {4, 4, 1, false},
};

u64 halves(u32 count, u32 width, u32 height) { return u64{width} * height * count / 2; }

void put_planar_chroma(const SemiPlanarPicture& picture, u32 row_step, u8* dst) {
  const u32 rows = picture.height / row_step;
  const u32 pairs = picture.width / 2;
  u8* u = dst;
  u8* v = dst + u64{pairs} * rows;
  for (u32 row = 0; row < rows; ++row) {
    const u8* vu = picture.chroma_row(row * row_step);
    for (u32 pair = 0; pair < pairs; ++pair, vu += 2) {
      *v++ = vu[0];
      *u++ = vu[1];
    }
  }
}

void put_semi_planar_chroma(const SemiPlanarPicture& picture, u32 row_step, u8* dst) {
  for (u32 row = 0; row < picture.height / row_step; ++row, dst += picture.width) {
    std::memcpy(dst, picture.chroma_row(row * row_step), picture.width);
  }
}

void put_planes(const SemiPlanarPicture& picture, const LayoutRow& layout, u8* dst) {
  for (u32 row = 0; row < picture.height; ++row, dst += picture.width) {
    std::memcpy(dst, picture.luma_row(row), picture.width);
  }
  const auto put_chroma = layout.planar ? put_planar_chroma : put_semi_planar_chroma;
  put_chroma(picture, layout.luma_rows_per_chroma_row, dst);
}

// Interleaves `count` pixels of one row to Y0 C0 Y1 C1.
void interleave(const u8* luma, const u8* chroma, u8* dst, u32 count) {
  for (u32 pixel = 0; pixel < count; ++pixel) {
    dst[2 * pixel] = luma[pixel];
    dst[2 * pixel + 1] = chroma[pixel];
  }
}

}  // namespace

u64 yuv_bytes_needed(u32 layout, u32 width, u32 height) {
  return layout < std::size(kLayouts) ? halves(kLayouts[layout].needed_halves, width, height) : 0;
}

YuvResult yuv_convert(const SemiPlanarPicture& picture, u32 layout, u8* dst, u64 dst_size) {
  if (layout >= std::size(kLayouts) || dst_size < yuv_bytes_needed(layout, picture.width, picture.height)) {
    return {-1, luma_out_of_range(picture)};
  }
  const i64 bytes = halves(kLayouts[layout].reported_halves, picture.width, picture.height);
  if (layout == kPackedYuy2) return {bytes, yuy2_convert(picture, dst)};
  put_planes(picture, kLayouts[layout], dst);
  return {bytes, luma_out_of_range(picture)};
}

void nv12_to_yuy2(const u8* src, u8* dst, u32 width, u32 height) {
  constexpr u32 kStep = 4;
  const u8* luma = src;
  const u8* chroma_plane = src + u64{width} * height;
  for (u32 row = 0; height >= 2 && row < height; ++row) {
    const u8* chroma = chroma_plane + u64{width} * std::min(row / 2, height / 2 - 1);
    u32 left = width;
    for (; left >= kStep; left -= kStep, luma += kStep, chroma += kStep, dst += 2 * kStep) {
      interleave(luma, chroma, dst, kStep);
    }
    interleave(luma, chroma, dst, left);
    luma += left;
    dst += 2 * left;
  }
}
