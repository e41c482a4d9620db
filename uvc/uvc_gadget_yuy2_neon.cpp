// The row functions for NEON, the camera's instruction set: 16 pairs of pixels a turn.
#if defined(__ARM_NEON)
#include <arm_neon.h>

#include "uvc/uvc_gadget_yuy2_rows.h"

namespace {

// Keeps, for each byte, the largest difference of any luma to the lowest one allowed.
uint8x16_t look(uint8x16_t worst, uint8x16_t luma) {
  return vmaxq_u8(worst, vsubq_u8(luma, vdupq_n_u8(kLumaLowest)));
}
bool too_far(uint8x16_t worst) {
  const uint8x16_t beyond = vqsubq_u8(worst, vdupq_n_u8(kLumaSpan));
  const uint8x8_t folded = vorr_u8(vget_low_u8(beyond), vget_high_u8(beyond));
  return vget_lane_u64(vreinterpret_u64_u8(folded), 0) != 0;
}

}  // namespace

template <bool kLook>
bool yuy2_row_neon(const u8* luma, const u8* chroma, u8* dst, std::size_t pairs) {
  uint8x16_t worst = vdupq_n_u8(0);
  for (std::size_t turns = pairs / 16; turns != 0; --turns, luma += 32, chroma += 32, dst += 64) {
    const uint8x16x2_t y = vld2q_u8(luma);
    const uint8x16x2_t vu = vld2q_u8(chroma);
    const uint8x16x4_t out = {y.val[0], vu.val[1], y.val[1], vu.val[0]};
    vst4q_u8(dst, out);
    if constexpr (kLook) worst = look(look(worst, y.val[0]), y.val[1]);
  }
  return yuy2_row_plain<kLook>(luma, chroma, dst, pairs % 16) || (kLook && too_far(worst));
}
template bool yuy2_row_neon<false>(const u8*, const u8*, u8*, std::size_t);
template bool yuy2_row_neon<true>(const u8*, const u8*, u8*, std::size_t);

bool luma_look_neon(const u8* luma, std::size_t width) {
  uint8x16_t worst = vdupq_n_u8(0);
  for (; width >= 16; width -= 16, luma += 16) worst = look(worst, vld1q_u8(luma));
  return too_far(worst) || luma_look_plain(luma, width);
}

#endif
