// Writes a semi-planar picture in one of five layouts. Output planes are packed, one after the other, at the
// picture's own resolution; chroma is repeated or dropped by whole rows, never averaged. With odd sizes,
// 4:2:0 and planar chroma cover the width and height rounded down to even. The functions have no state: any
// thread may call them.
#pragma once

#include "uvc/uvc_gadget_yuy2.h"

enum YuvLayout : u32 {
  kPlanar420,      ///< Y, U, V
  kPlanar422,      ///< Y, U, V
  kSemiPlanar420,  ///< V first
  kSemiPlanar422,  ///< V first
  kPackedYuy2,
};

/// The bytes that a layout takes for a picture of this size (each plane below 4 GiB), or 0 for a layout that
/// does not exist.
u64 yuv_bytes_needed(u32 layout, u32 width, u32 height);

struct YuvResult {
  i64 bytes;               ///< the byte count that the layout reports, or -1: nothing was written
  bool luma_out_of_range;  ///< there is a luma byte outside 16..235; also valid when nothing was written
};

/// Converts a valid picture into dst. Writes nothing when the layout does not exist or dst_size is too small
/// for it (yuv_bytes_needed).
YuvResult yuv_convert(const SemiPlanarPicture& picture, u32 layout, u8* dst, u64 dst_size);

/// Interleaves a packed semi-planar 4:2:0 picture, U first (height luma rows of width bytes, then height / 2
/// chroma rows), to Y0 C0 Y1 C1 with the chroma bytes in their stored order: width * height * 2 bytes at dst.
/// The last row of an odd height takes the last whole chroma row. A picture of height 1 has no chroma row, so
/// nothing is written.
void nv12_to_yuy2(const u8* src, u8* dst, u32 width, u32 height);
