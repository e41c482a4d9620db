// The row functions for x86: SSE2, which every 64-bit processor has, and AVX2.
#if defined(__SSE2__)
#include <immintrin.h>

#include "uvc/uvc_gadget_yuy2_rows.h"

namespace {

__m128i load(const u8* from) { return _mm_loadu_si128(reinterpret_cast<const __m128i*>(from)); }
void store(u8* to, __m128i value) { _mm_storeu_si128(reinterpret_cast<__m128i*>(to), value); }

// Keeps, for each byte, the largest difference of any luma to the lowest one allowed.
__m128i look(__m128i worst, __m128i luma) {
  return _mm_max_epu8(worst, _mm_sub_epi8(luma, _mm_set1_epi8(kLumaLowest)));
}
bool too_far(__m128i worst) {
  const __m128i beyond = _mm_subs_epu8(worst, _mm_set1_epi8(static_cast<char>(kLumaSpan)));
  return _mm_movemask_epi8(_mm_cmpeq_epi8(beyond, _mm_setzero_si128())) != 0xFFFF;
}

}  // namespace

template <bool kLook>
bool yuy2_row_sse2(const u8* luma, const u8* chroma, u8* dst, std::size_t pairs) {
  __m128i worst = _mm_setzero_si128();
  for (; pairs >= 8; pairs -= 8, luma += 16, chroma += 16, dst += 32) {
    const __m128i y = load(luma);
    const __m128i vu = load(chroma);
    const __m128i uv = _mm_or_si128(_mm_slli_epi16(vu, 8), _mm_srli_epi16(vu, 8));
    store(dst, _mm_unpacklo_epi8(y, uv));
    store(dst + 16, _mm_unpackhi_epi8(y, uv));
    if constexpr (kLook) worst = look(worst, y);
  }
  return yuy2_row_plain<kLook>(luma, chroma, dst, pairs) || (kLook && too_far(worst));
}
template bool yuy2_row_sse2<false>(const u8*, const u8*, u8*, std::size_t);
template bool yuy2_row_sse2<true>(const u8*, const u8*, u8*, std::size_t);

bool luma_look_sse2(const u8* luma, std::size_t width) {
  __m128i worst = _mm_setzero_si128();
  for (; width >= 16; width -= 16, luma += 16) worst = look(worst, load(luma));
  return too_far(worst) || luma_look_plain(luma, width);
}

#define AVX2 [[gnu::target("avx2")]]

namespace {

AVX2 __m256i load32(const u8* from) { return _mm256_loadu_si256(reinterpret_cast<const __m256i*>(from)); }
AVX2 void store32(u8* to, __m256i value) { _mm256_storeu_si256(reinterpret_cast<__m256i*>(to), value); }

AVX2 __m256i look(__m256i worst, __m256i luma) {
  return _mm256_max_epu8(worst, _mm256_sub_epi8(luma, _mm256_set1_epi8(kLumaLowest)));
}
AVX2 bool too_far(__m256i worst) {
  return too_far(_mm_max_epu8(_mm256_castsi256_si128(worst), _mm256_extracti128_si256(worst, 1)));
}

// Puts the quarters 0 1 2 3 in the order 0 2 1 3, so that the unpack instructions give whole runs of pixels.
AVX2 __m256i for_unpack(__m256i value) { return _mm256_permute4x64_epi64(value, 0b11'01'10'00); }

}  // namespace

template <bool kLook>
AVX2 bool yuy2_row_avx2(const u8* luma, const u8* chroma, u8* dst, std::size_t pairs) {
  const __m256i swap = _mm256_set_epi8(14, 15, 12, 13, 10, 11, 8, 9, 6, 7, 4, 5, 2, 3, 0, 1,  //
                                       14, 15, 12, 13, 10, 11, 8, 9, 6, 7, 4, 5, 2, 3, 0, 1);
  __m256i worst = _mm256_setzero_si256();
  for (; pairs >= 16; pairs -= 16, luma += 32, chroma += 32, dst += 64) {
    const __m256i y = for_unpack(load32(luma));
    const __m256i uv = _mm256_shuffle_epi8(for_unpack(load32(chroma)), swap);
    store32(dst, _mm256_unpacklo_epi8(y, uv));
    store32(dst + 32, _mm256_unpackhi_epi8(y, uv));
    if constexpr (kLook) worst = look(worst, y);
  }
  return yuy2_row_plain<kLook>(luma, chroma, dst, pairs) || (kLook && too_far(worst));
}
template bool yuy2_row_avx2<false>(const u8*, const u8*, u8*, std::size_t);
template bool yuy2_row_avx2<true>(const u8*, const u8*, u8*, std::size_t);

AVX2 bool luma_look_avx2(const u8* luma, std::size_t width) {
  __m256i worst = _mm256_setzero_si256();
  for (; width >= 32; width -= 32, luma += 32) worst = look(worst, load32(luma));
  return too_far(worst) || luma_look_plain(luma, width);
}

#endif
