// The frame counter that is burnt into every picture of the scene: 32 bits and 8 check bits as black and
// white cells, in one strip at the top and another at the bottom. It survives every codec at the camera's bit
// rates, and a picture that is put together from two frames shows two different counters.
#pragma once

#include <optional>

#include "common/bytes.h"
#include "sim/media/av.h"

namespace sim {

enum class Strip { kTop, kBottom };

/// The luma samples of a picture in memory; `step` is 2 in packed 4:2:2.
struct LumaView {
  const u8* data;
  u32 width, height;
  u32 stride;    ///< bytes from row to row
  u32 step = 1;  ///< bytes from pixel to pixel
};

/// The narrowest picture that has room for a counter, in pixels.
constexpr u32 kNarrowestPicture = 80;

constexpr u32 kCells = 40;
/// Returns the height of a strip, or 0 if the picture is too narrow. Cells are square, and their size is
/// even, so that they cover whole chroma samples, too.
constexpr u32 strip_height(u32 width) { return width / kCells & ~1u; }

/// Draws both strips on a planar 4:2:0 picture that is at least kNarrowestPicture pixels wide.
void burn_counter(AVFrame& picture, u32 counter);
/// Returns nothing if the check bits are wrong or the picture is too small.
std::optional<u32> read_counter(const LumaView& picture, Strip strip);

}  // namespace sim
