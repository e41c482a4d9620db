// Measures what changed from one received picture to the next: brightness, contrast, colour, and how the
// scene moved or grew.
#pragma once

#include <optional>
#include <vector>

#include "common/bytes.h"
#include "sim/media/av.h"

namespace sim {

/// A received picture, reduced for measuring: values 0..255, rows without padding, and without the strips
/// with the frame counter.
struct MeasuredPicture {
  u32 width = 0, height = 0;
  std::vector<u8> luma;
  double mean_luma = 0;       ///< 0..255
  double luma_deviation = 0;  ///< standard deviation
  double colourfulness = 0;   ///< mean distance of the chroma from grey
};
/// `picture` must have a planar 4:2:0 or packed 4:2:2 format.
MeasuredPicture measure(const AVFrame& picture);

/// How far the scene moved from `before` to `after`: the shift with the best normalised correlation.
struct SceneShift {
  double right, up;    ///< in parts of the picture's width: 0.1 is a tenth of it, to the right or up
  double correlation;  ///< 1 if the overlapping parts are the same
};
SceneShift find_shift(const MeasuredPicture& before, const MeasuredPicture& after);

/// The factor by which the scene grew around the picture's middle, 0.1..10, found by the best correlation.
struct SceneScale {
  double factor;
  double correlation;
};
SceneScale find_scale(const MeasuredPicture& before, const MeasuredPicture& after);

}  // namespace sim
