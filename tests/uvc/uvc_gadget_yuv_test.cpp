#include "uvc/uvc_gadget_yuv.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <numeric>

#include "tests/uvc/guarded_bytes.h"

namespace {

// Luma counts from 20, ten a row; V counts 100, 102, ..., and the U of each pair is one more. The rows are
// padded to their strides.
constexpr u8 kLuma[] = {20, 21, 22, 23, 24, 0xAA, 30, 31, 32, 33, 34, 0xAA,
                        40, 41, 42, 43, 44, 0xAA, 50, 51, 52, 53, 54, 0xAA};
constexpr u8 kChroma[] = {100, 101, 102, 103, 104, 105, 0xBB, 110, 111, 112, 113, 114, 115, 0xBB,
                          120, 121, 122, 123, 124, 125, 0xBB, 130, 131, 132, 133, 134, 135, 0xBB};

SemiPlanarPicture picture(u32 width, u32 height, bool chroma_422) {
  return {kLuma, kChroma, 6, 7, width, height, chroma_422};
}

// The layouts written out sample by sample; V comes first in the picture's pairs.
std::vector<u8> expected(const SemiPlanarPicture& p, u32 layout) {
  const auto chroma = [&](u32 row, u32 x) { return kChroma[row * 7 + x]; };
  const auto beside = [&](u32 row) { return p.chroma_422 ? row : std::min(row / 2, p.height / 2 - 1); };
  std::vector<u8> bytes;
  for (u32 row = 0; row < p.height; ++row) {
    for (u32 x = 0; x < p.width; ++x) {
      bytes.push_back(kLuma[row * 6 + x]);
      if (layout == kPackedYuy2) bytes.push_back(chroma(beside(row), x ^ 1));
    }
  }
  if (layout == kPackedYuy2) return bytes;
  const bool halved = layout == kPlanar420 || layout == kSemiPlanar420;
  const u32 rows = halved ? p.height / 2 : p.height;
  const auto source = [&](u32 row) { return beside(halved ? 2 * row : row); };
  if (layout == kSemiPlanar420 || layout == kSemiPlanar422) {
    for (u32 row = 0; row < rows; ++row)
      for (u32 x = 0; x < p.width; ++x) bytes.push_back(chroma(source(row), x));
    return bytes;
  }
  for (const u32 part : {1, 0})
    for (u32 row = 0; row < rows; ++row)
      for (u32 x = 0; x < p.width / 2; ++x) bytes.push_back(chroma(source(row), 2 * x + part));
  return bytes;
}

TEST(Yuv, LayoutsFromBothPictureFormatsAtEverySize) {
  for (u32 layout = 0; layout <= kPackedYuy2; ++layout) {
    for (u32 size = 0; size < 30; ++size) {
      const u32 width = size % 5 + 1, height = size / 5 % 3 + 2;
      const SemiPlanarPicture from = picture(width, height, size >= 15);
      SCOPED_TRACE(testing::Message() << layout << ": " << width << "x" << height << " " << from.chroma_422);
      const auto needed = static_cast<std::size_t>(yuv_bytes_needed(layout, width, height));
      std::vector<u8> want = expected(from, layout);
      want.resize(needed, 0xEE);
      const GuardedBytes dst(std::vector<u8>(needed, 0xEE));
      const YuvResult result = yuv_convert(from, layout, dst.data(), needed);
      const bool two_bytes =
          layout == kPlanar422 || layout == kPackedYuy2;  // semi-planar 4:2:2 is told short
      EXPECT_EQ(result.bytes, width * height * (two_bytes ? 4 : 3) / 2);
      EXPECT_FALSE(result.luma_out_of_range);
      EXPECT_EQ(dst.bytes(), want);
    }
  }
}

TEST(Yuv, WhatDoesNotFitWritesNothingButIsLookedAtAllTheSame) {
  const u8 bright[] = {20, 255, 20, 20};
  SemiPlanarPicture odd_one = picture(2, 2, true);
  odd_one.luma = bright;
  odd_one.luma_stride = 2;
  for (u32 layout = 0; layout <= kPackedYuy2; ++layout) {
    const auto needed = static_cast<std::size_t>(yuv_bytes_needed(layout, 2, 2));
    const GuardedBytes dst(std::vector<u8>(needed, 0xEE));
    for (const u64 size : {std::size_t{0}, needed - 1}) {
      const YuvResult small = yuv_convert(odd_one, layout, dst.data(), size);
      EXPECT_EQ(small.bytes, -1);
      EXPECT_TRUE(small.luma_out_of_range);
      EXPECT_EQ(dst.bytes(), std::vector<u8>(needed, 0xEE)) << "layout " << layout;
    }
    EXPECT_TRUE(yuv_convert(odd_one, layout, dst.data(), needed).luma_out_of_range) << "layout " << layout;
  }
  for (const u32 unknown : {5u, ~0u}) {
    EXPECT_EQ(yuv_convert(odd_one, unknown, nullptr, 1000).bytes, -1);
    EXPECT_EQ(yuv_bytes_needed(unknown, 2, 2), 0u);
  }
}

TEST(Yuv, TightPictureIsInterleavedInTheOrderItsChromaStandsIn) {
  for (u32 width = 1; width <= 13; ++width) {
    for (const u32 height : {2u, 3u, 6u}) {
      std::vector<u8> bytes(width * height + width * (height / 2));
      std::iota(bytes.begin(), bytes.end(), u8{0});
      std::vector<u8> want;
      for (u32 row = 0; row < height; ++row) {
        for (u32 x = 0; x < width; ++x) {
          want.push_back(bytes[row * width + x]);
          want.push_back(bytes[width * height + std::min(row / 2, height / 2 - 1) * width + x]);
        }
      }
      const GuardedBytes src(bytes), dst(std::vector<u8>(want.size()));
      nv12_to_yuy2(src.data(), dst.data(), width, height);
      EXPECT_EQ(dst.bytes(), want) << width << "x" << height;
    }
  }
  const GuardedBytes src(std::vector<u8>(6)), untouched(std::vector<u8>(8, 0xEE));
  nv12_to_yuy2(src.data(), untouched.data(), 4, 1);
  EXPECT_EQ(untouched.bytes(), std::vector<u8>(8, 0xEE));
}

}  // namespace
