// The row functions behind Yuy2Kernels, one set per instruction set. `kLook` adds the luma range test. The
// vector sets convert whole vectors and leave the rest of a row to the plain set.
#pragma once

#include <cstddef>

#include "common/bytes.h"

/// Studio-range luma is kLumaLowest..kLumaLowest + kLumaSpan: its difference to the lowest, in a byte, is at
/// most the span. One unsigned comparison thus covers both directions.
constexpr u8 kLumaLowest = 16;
constexpr u8 kLumaSpan = 235 - 16;

template <bool kLook>
bool yuy2_row_plain(const u8* luma, const u8* chroma, u8* dst, std::size_t pairs);
bool luma_look_plain(const u8* luma, std::size_t width);

#if defined(__SSE2__)
template <bool kLook>
bool yuy2_row_sse2(const u8* luma, const u8* chroma, u8* dst, std::size_t pairs);
bool luma_look_sse2(const u8* luma, std::size_t width);

template <bool kLook>
[[gnu::target("avx2")]] bool yuy2_row_avx2(const u8* luma, const u8* chroma, u8* dst, std::size_t pairs);
bool luma_look_avx2(const u8* luma, std::size_t width);
#endif

#if defined(__ARM_NEON)
template <bool kLook>
bool yuy2_row_neon(const u8* luma, const u8* chroma, u8* dst, std::size_t pairs);
bool luma_look_neon(const u8* luma, std::size_t width);
#endif
