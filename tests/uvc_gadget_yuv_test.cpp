#include "uvc/uvc_gadget_yuv.h"

#include <gtest/gtest.h>

#include <numeric>

#include "tests/guarded_bytes.h"

namespace {

// Luma counts from 20, a row of ten; V stands at 100, 102, ... and the U of the pair one above; strides are
// padded.
constexpr u8 kLuma[] = {20, 21, 22, 23, 24, 0xAA, 30, 31, 32, 33, 34, 0xAA,
                        40, 41, 42, 43, 44, 0xAA, 50, 51, 52, 53, 54, 0xAA};
constexpr u8 kChroma[] = {100, 101, 102, 103, 104, 105, 0xBB, 110, 111, 112, 113, 114, 115, 0xBB,
                          120, 121, 122, 123, 124, 125, 0xBB, 130, 131, 132, 133, 134, 135, 0xBB};

SemiPlanarPicture picture(u32 width, u32 height, bool chroma_422) {
  return {kLuma, kChroma, 6, 7, width, height, chroma_422};
}

TEST(Yuv, LayoutsFromBothPictureFormats) {
  struct {
    const char* what;
    u32 layout, width, height;
    bool chroma_422;
    i64 reported;
    std::vector<u8> bytes;
  } const cases[] = {
      {"planar 4:2:0 from 4:2:0", kPlanar420, 4, 4, false, 24, {20,  21,  22,  23,  30,  31,  32,  33,
                                                                40,  41,  42,  43,  50,  51,  52,  53,
                                                                101, 103, 111, 113, 100, 102, 110, 112}},
      {"planar 4:2:0 from 4:2:2", kPlanar420, 4, 4, true, 24, {20,  21,  22,  23,  30,  31,  32,  33,
                                                               40,  41,  42,  43,  50,  51,  52,  53,
                                                               101, 103, 121, 123, 100, 102, 120, 122}},
      {"planar 4:2:2 from 4:2:0",
       kPlanar422,
       2,
       4,
       false,
       16,
       {20, 21, 30, 31, 40, 41, 50, 51, 101, 101, 111, 111, 100, 100, 110, 110}},
      {"planar 4:2:2 from 4:2:2",
       kPlanar422,
       2,
       4,
       true,
       16,
       {20, 21, 30, 31, 40, 41, 50, 51, 101, 111, 121, 131, 100, 110, 120, 130}},
      {"semi-planar 4:2:0 from 4:2:0",
       kSemiPlanar420,
       2,
       4,
       false,
       12,
       {20, 21, 30, 31, 40, 41, 50, 51, 100, 101, 110, 111}},
      {"semi-planar 4:2:0 from 4:2:2",
       kSemiPlanar420,
       2,
       4,
       true,
       12,
       {20, 21, 30, 31, 40, 41, 50, 51, 100, 101, 120, 121}},
      {"semi-planar 4:2:2 from 4:2:0, short count",
       kSemiPlanar422,
       2,
       4,
       false,
       12,
       {20, 21, 30, 31, 40, 41, 50, 51, 100, 101, 100, 101, 110, 111, 110, 111}},
      {"semi-planar 4:2:2 from 4:2:2, short count",
       kSemiPlanar422,
       2,
       4,
       true,
       12,
       {20, 21, 30, 31, 40, 41, 50, 51, 100, 101, 110, 111, 120, 121, 130, 131}},
      {"packed from 4:2:0",
       kPackedYuy2,
       4,
       2,
       false,
       16,
       {20, 101, 21, 100, 22, 103, 23, 102, 30, 101, 31, 100, 32, 103, 33, 102}},
      {"packed from 4:2:2", kPackedYuy2, 2, 2, true, 8, {20, 101, 21, 100, 30, 111, 31, 110}},
      {"odd planar 4:2:0",
       kPlanar420,
       5,
       3,
       false,
       22,
       {20, 21, 22, 23, 24, 30, 31, 32, 33, 34, 40, 41, 42, 43, 44, 101, 103, 100, 102}},
      {"odd planar 4:2:2",
       kPlanar422,
       3,
       3,
       false,
       18,
       {20, 21, 22, 30, 31, 32, 40, 41, 42, 101, 101, 101, 100, 100, 100}},
      {"odd semi-planar 4:2:0",
       kSemiPlanar420,
       3,
       3,
       true,
       13,
       {20, 21, 22, 30, 31, 32, 40, 41, 42, 100, 101, 102}},
      {"odd semi-planar 4:2:2",
       kSemiPlanar422,
       3,
       3,
       false,
       13,
       {20, 21, 22, 30, 31, 32, 40, 41, 42, 100, 101, 102, 100, 101, 102, 100, 101, 102}},
      {"odd packed",
       kPackedYuy2,
       3,
       3,
       false,
       18,
       {20, 101, 21, 100, 22, 103, 30, 101, 31, 100, 32, 103, 40, 101, 41, 100, 42, 103}},
  };
  for (const auto& [what, layout, width, height, chroma_422, reported, bytes] : cases) {
    const auto needed = static_cast<std::size_t>(yuv_bytes_needed(layout, width, height));
    std::vector<u8> want = bytes;
    want.resize(needed, 0xEE);
    const GuardedBytes dst(std::vector<u8>(needed, 0xEE));
    const YuvResult result = yuv_convert(picture(width, height, chroma_422), layout, dst.data(), needed);
    EXPECT_EQ(result.bytes, reported) << what;
    EXPECT_FALSE(result.luma_out_of_range) << what;
    EXPECT_EQ(dst.bytes(), want) << what;
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

TEST(Yuv, NeededBytesDoNotWrapAt32Bits) {
  EXPECT_EQ(yuv_bytes_needed(kPackedYuy2, 1920, 1080), 4147200u);
  EXPECT_EQ(yuv_bytes_needed(kSemiPlanar420, 1920, 1080), 3110400u);
  EXPECT_EQ(yuv_bytes_needed(kPlanar422, 0x8000, 0x10000), u64{1} << 32);
  EXPECT_EQ(yuv_bytes_needed(kPlanar420, 0xFFFF, 0x10000), 6442352640u);
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
