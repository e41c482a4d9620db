// Packed YUY2 from the semi-planar pictures of the video processing subsystem: Y0 U Y1 V for each pair of
// pixels, from a luma plane and a chroma plane that interleaves V and U. A picture is converted in one pass,
// straight into its destination, and the luma range is checked in the same pass. Pictures and destination
// never overlap. All kernel sets give the same bytes. The functions have no state: any thread may call them.
#pragma once

#include <cstddef>
#include <span>

#include "common/bytes.h"

/// A picture in mapped memory. In 4:2:0 two luma rows share a chroma row, in 4:2:2 each has one of its own.
struct SemiPlanarPicture {
  const u8* luma;
  const u8* chroma;  ///< V first
  u32 luma_stride;   ///< bytes from one row to the next
  u32 chroma_stride;
  u32 width;   ///< pixels
  u32 height;  ///< lines
  bool chroma_422;

  /// The bytes that are to be mapped for each plane.
  u64 luma_bytes() const { return u64{luma_stride} * height; }
  u64 chroma_bytes() const { return u64{chroma_stride} * height / (chroma_422 ? 1 : 2); }

  u32 chroma_rows() const { return chroma_422 ? height : height / 2; }
  const u8* luma_row(u32 row) const { return luma + u64{luma_stride} * row; }
  /// The chroma of a luma row.
  /// Deliberate: the last row of an odd 4:2:0 height takes the last whole chroma row, since only half of its
  /// own is mapped.
  const u8* chroma_row(u32 row) const {
    const u32 own = chroma_422 ? row : row / 2;
    return chroma + u64{chroma_stride} * (own < chroma_rows() ? own : chroma_rows() - 1);
  }
};

/// Whether the geometry is consistent; to be checked before the planes are mapped. Neither side is 0, no
/// stride is shorter than the width, each plane has a whole row, and the bytes of each plane fit in 32 bits.
bool picture_valid(const SemiPlanarPicture& picture);

/// One instruction set's row functions. A row of pairs reads 2 * pairs bytes of luma and of chroma and writes
/// 4 * pairs. The two that look return whether they saw a luma byte outside 16..235, `convert` returns false.
struct Yuy2Kernels {
  using Row = bool (*)(const u8* luma, const u8* chroma, u8* dst, std::size_t pairs);
  const char* name;
  Row convert;
  Row convert_and_look;
  bool (*look)(const u8* luma, std::size_t width);
};

/// Every set that this machine can run: the plain reference first, the fastest last.
std::span<const Yuy2Kernels> yuy2_kernels();

/// Converts a valid picture into width * height * 2 bytes at dst, rows back to back, and returns whether
/// there is a luma byte outside 16..235; it stops looking after the row of the first one. With an odd width
/// each row ends with Y and U of its last pixel.
bool yuy2_convert(const SemiPlanarPicture& picture, u8* dst,
                  const Yuy2Kernels& kernels = yuy2_kernels().back());

/// Whether a valid picture has a luma byte outside 16..235. Converts nothing.
bool luma_out_of_range(const SemiPlanarPicture& picture, const Yuy2Kernels& kernels = yuy2_kernels().back());
