#include "uvc/uvc_gadget_yuy2.h"

#include "uvc/uvc_gadget_yuy2_rows.h"

namespace {

bool out_of_range(u8 luma) { return static_cast<u8>(luma - kLumaLowest) > kLumaSpan; }

}  // namespace

template <bool kLook>
bool yuy2_row_plain(const u8* luma, const u8* chroma, u8* dst, std::size_t pairs) {
  bool seen = false;
  for (const u8* end = luma + 2 * pairs; luma != end; luma += 2, chroma += 2, dst += 4) {
    dst[0] = luma[0];
    dst[1] = chroma[1];
    dst[2] = luma[1];
    dst[3] = chroma[0];
    if constexpr (kLook) seen |= out_of_range(luma[0]) || out_of_range(luma[1]);
  }
  return seen;
}
template bool yuy2_row_plain<false>(const u8*, const u8*, u8*, std::size_t);
template bool yuy2_row_plain<true>(const u8*, const u8*, u8*, std::size_t);

bool luma_look_plain(const u8* luma, std::size_t width) {
  for (const u8* end = luma + width; luma != end; ++luma) {
    if (out_of_range(*luma)) return true;
  }
  return false;
}

namespace {

constexpr Yuy2Kernels kKernels[] = {
    {"plain", yuy2_row_plain<false>, yuy2_row_plain<true>, luma_look_plain},
#if defined(__SSE2__)
    {"sse2", yuy2_row_sse2<false>, yuy2_row_sse2<true>, luma_look_sse2},
    {"avx2", yuy2_row_avx2<false>, yuy2_row_avx2<true>, luma_look_avx2},
#endif
#if defined(__ARM_NEON)
    {"neon", yuy2_row_neon<false>, yuy2_row_neon<true>, luma_look_neon},
#endif
};

std::span<const Yuy2Kernels> runnable_kernels() {
  std::span<const Yuy2Kernels> all = kKernels;
#if defined(__SSE2__)
  __builtin_cpu_init();
  if (!__builtin_cpu_supports("avx2")) return all.first(all.size() - 1);
#endif
  return all;
}

// The last pixel of an odd width: half a pair, Y and U.
// Deliberate: the U byte is the one past the width; where the plane ends before it, neutral chroma is taken.
bool put_last_pixel(const SemiPlanarPicture& picture, u32 row, u8* dst) {
  constexpr u8 kNeutral = 128;
  const u8* plane_end = picture.chroma + u64{picture.chroma_stride} * picture.chroma_rows();
  const u8* u = picture.chroma_row(row) + picture.width;
  dst[0] = picture.luma_row(row)[picture.width - 1];
  dst[1] = u != plane_end ? *u : kNeutral;
  return out_of_range(dst[0]);
}

}  // namespace

std::span<const Yuy2Kernels> yuy2_kernels() {
  static const std::span<const Yuy2Kernels> runnable = runnable_kernels();
  return runnable;
}

bool picture_valid(const SemiPlanarPicture& picture) {
  return picture.width != 0 && picture.chroma_rows() != 0 && picture.luma_stride >= picture.width &&
         picture.chroma_stride >= picture.width && picture.luma_bytes() <= UINT32_MAX &&
         picture.chroma_bytes() <= UINT32_MAX;
}

bool yuy2_convert(const SemiPlanarPicture& picture, u8* dst, const Yuy2Kernels& kernels) {
  const std::size_t pairs = picture.width / 2;
  bool seen = false;
  for (u32 row = 0; row < picture.height; ++row) {
    const Yuy2Kernels::Row convert = seen ? kernels.convert : kernels.convert_and_look;
    seen |= convert(picture.luma_row(row), picture.chroma_row(row), dst, pairs);
    dst += 4 * pairs;
    if (picture.width % 2 != 0) {
      seen |= put_last_pixel(picture, row, dst);
      dst += 2;
    }
  }
  return seen;
}

bool luma_out_of_range(const SemiPlanarPicture& picture, const Yuy2Kernels& kernels) {
  for (u32 row = 0; row < picture.height; ++row) {
    if (kernels.look(picture.luma_row(row), picture.width)) return true;
  }
  return false;
}
