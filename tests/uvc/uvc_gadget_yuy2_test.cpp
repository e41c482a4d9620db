// Every kernel set against a reference written out pixel by pixel, in planes and destinations whose last byte
// is the last one that may be touched.
#include "uvc/uvc_gadget_yuy2.h"

#include <gtest/gtest.h>

#include <random>
#include <string>
#include <utility>

#include "tests/uvc/guarded_bytes.h"

namespace {

struct Geometry {
  u32 width, height, luma_stride, chroma_stride;
  bool chroma_422;
};

SemiPlanarPicture of(const Geometry& g) {
  return {nullptr, nullptr, g.luma_stride, g.chroma_stride, g.width, g.height, g.chroma_422};
}

std::vector<u8> random_bytes(std::size_t count, u8 low, u8 high) {
  static std::mt19937 random(1);
  std::vector<u8> bytes(count);
  for (u8& byte : bytes) byte = static_cast<u8>(low + random() % (high - low + 1u));
  return bytes;
}

// A picture in guarded memory: luma 16..235, chroma anything. Planes hold whole rows and not a byte more.
struct TestPicture {
  explicit TestPicture(const Geometry& g)
      : luma(random_bytes(std::size_t{g.luma_stride} * g.height, 16, 235)),
        chroma(random_bytes(std::size_t{g.chroma_stride} * of(g).chroma_rows(), 0, 255)),
        picture(of(g)) {
    picture.luma = luma.data();
    picture.chroma = chroma.data();
  }
  GuardedBytes luma;
  GuardedBytes chroma;
  SemiPlanarPicture picture;
};

std::vector<u8> expected_yuy2(const SemiPlanarPicture& p) {
  std::vector<u8> out;
  const std::size_t plane_end = std::size_t{p.chroma_stride} * p.chroma_rows();
  for (std::size_t row = 0; row < p.height; ++row) {
    const std::size_t own = p.chroma_422 ? row : row / 2;
    const std::size_t chroma = std::min<std::size_t>(own, p.chroma_rows() - 1) * p.chroma_stride;
    for (std::size_t x = 0; x < p.width; ++x) {
      const std::size_t at = chroma + (x % 2 == 0 ? x + 1 : x - 1);
      out.push_back(p.luma[row * p.luma_stride + x]);
      out.push_back(at < plane_end ? p.chroma[at] : u8{128});
    }
  }
  return out;
}

void expect_converted(const Geometry& g, const Yuy2Kernels& kernels) {
  SCOPED_TRACE(std::string(kernels.name) + " " + std::to_string(g.width) + "x" + std::to_string(g.height) +
               " strides " + std::to_string(g.luma_stride) + " " + std::to_string(g.chroma_stride) +
               (g.chroma_422 ? " 4:2:2" : " 4:2:0"));
  const TestPicture test(g);
  const GuardedBytes dst(std::vector<u8>(std::size_t{g.width} * g.height * 2));
  ASSERT_TRUE(picture_valid(test.picture));
  EXPECT_FALSE(yuy2_convert(test.picture, dst.data(), kernels));
  EXPECT_EQ(dst.bytes(), expected_yuy2(test.picture));
}

TEST(Yuy2, EverySetGivesTheReferenceBytesAtEveryWidthAndStride) {
  for (const Yuy2Kernels& kernels : yuy2_kernels()) {
    for (u32 width = 1; width <= 130; ++width) {
      for (const u32 extra : {0, 1, 6, 31}) {
        for (const u32 height : {2, 3, 5}) {
          expect_converted({width, height, width + extra, width + (extra ^ 1), false}, kernels);
          expect_converted({width, height, width + (extra ^ 1), width + extra, true}, kernels);
        }
      }
      expect_converted({width, 1, width, width, true}, kernels);
    }
  }
}

TEST(Yuy2, OneLumaByteOutOfRangeIsSeenWhereverItStands) {
  struct {
    u8 value;
    bool out;
  } const cases[] = {{15, true}, {236, true}, {0, true}, {255, true}, {16, false}, {235, false}};
  for (const Yuy2Kernels& kernels : yuy2_kernels()) {
    for (const u32 width : {1, 2, 15, 16, 17, 31, 33, 64, 67, 130}) {
      const TestPicture test({width, 3, width + 3, width + 1, false});
      const GuardedBytes dst(std::vector<u8>(std::size_t{width} * 3 * 2));
      for (u32 at = 0; at < 3 * (width + 3); ++at) {
        const bool padding = at % (width + 3) >= width;
        for (const auto& [value, out] : cases) {
          const u8 before = std::exchange(test.luma.data()[at], value);
          EXPECT_EQ(luma_out_of_range(test.picture, kernels), out && !padding)
              << kernels.name << " width " << width << " byte " << at << " value " << u32{value};
          EXPECT_EQ(yuy2_convert(test.picture, dst.data(), kernels), out && !padding)
              << kernels.name << " width " << width << " byte " << at << " value " << u32{value};
          ASSERT_EQ(dst.bytes(), expected_yuy2(test.picture));
          test.luma.data()[at] = before;
        }
      }
    }
  }
}

TEST(Yuy2, GeometryThatDoesNotHoldTogetherIsRefused) {
  struct {
    const char* what;
    Geometry geometry;
    bool valid;
  } const cases[] = {
      {"full HD 4:2:0", {1920, 1080, 1920, 1920, false}, true},
      {"one pixel", {1, 1, 1, 1, true}, true},
      {"no width", {0, 480, 640, 640, false}, false},
      {"no whole chroma row", {640, 1, 640, 640, false}, false},
      {"short luma stride", {640, 480, 639, 640, false}, false},
      {"short chroma stride", {640, 480, 640, 639, true}, false},
      {"luma of 4 GiB", {640, 0x10000, 0x10000, 640, false}, false},
      {"luma of 4 GiB less a row", {640, 0xFFFF, 0x10000, 640, false}, true},
      {"chroma of 4 GiB", {640, 0x10000, 640, 0x10000, true}, false},
      {"4:2:0 chroma of 2 GiB", {640, 0x10000, 640, 0x10000, false}, true},
      {"all ones", {~0u, ~0u, ~0u, ~0u, false}, false},
  };
  for (const auto& [what, geometry, valid] : cases) EXPECT_EQ(picture_valid(of(geometry)), valid) << what;
  EXPECT_EQ(of({5, 3, 8, 7, false}).chroma_bytes(), 10u);
  EXPECT_EQ(of({5, 3, 8, 7, true}).chroma_bytes(), 21u);
}

}  // namespace
