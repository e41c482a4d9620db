// A semi-planar picture in one of five layouts. Output planes are tight, one behind the other, at the
// picture's own resolution; chroma is repeated or dropped by whole rows, never averaged. With odd sizes, what
// 4:2:0 and planar chroma would need beyond the width and height rounded down to even is left out. No state:
// any thread may call everything here.
#pragma once

#include "uvc/uvc_gadget_yuy2.h"

enum YuvLayout : u32 {
  kPlanar420,      ///< Y, U, V
  kPlanar422,      ///< Y, U, V
  kSemiPlanar420,  ///< V first
  kSemiPlanar422,  ///< V first
  kPackedYuy2,
};

/// What a layout takes for a picture of this size (each plane below 4 GiB). 0 for a layout that does not
/// exist.
u64 yuv_bytes_needed(u32 layout, u32 width, u32 height);

struct YuvResult {
  i64 bytes;               ///< the count to report, or -1: nothing was written
  bool luma_out_of_range;  ///< a luma byte outside 16..235 was seen; looked for whether or not it fits
};

/// Converts a valid picture into dst. -1 when the layout does not exist or dst_size is below
/// yuv_bytes_needed.
YuvResult yuv_convert(const SemiPlanarPicture& picture, u32 layout, u8* dst, u64 dst_size);

/// Interleaves a tight semi-planar 4:2:0 picture, U first (height luma rows of width bytes, then height / 2
/// chroma rows), to Y0 C0 Y1 C1 with the chroma bytes in their stored order: width * height * 2 bytes at dst.
/// The last row of an odd height takes the last whole chroma row; a height of 1 has none, and nothing is
/// written.
void nv12_to_yuy2(const u8* src, u8* dst, u32 width, u32 height);
