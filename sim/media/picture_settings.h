// The picture settings as look-up tables for luma and chroma, and the sharpness. Mirroring is left
// to the view.
#pragma once

#include <array>

#include "sim/media/av.h"
#include "sim/parties/camera_head.h"

namespace sim {

class PictureLook {
 public:
  /// With `full_range`, luma is 0..255; otherwise it stays within 16..235.
  PictureLook(const PictureSettings& settings, bool full_range);

  /// Returns true if pictures stay as they are.
  bool neutral() const { return !tables_change_ && sharpening_ == 0; }
  /// Applies the settings to a planar 4:2:0 picture.
  void apply(AVFrame& picture) const;
  /// Returns what a sample of plane 0..2 becomes, without the effect of the sharpness.
  u8 changed(int plane, u8 sample) const { return tables_[plane][sample]; }

 private:
  void sharpen(AVFrame& picture) const;

  std::array<std::array<u8, 256>, 3> tables_;
  bool tables_change_;
  /// Factor of the difference from the blurred picture, in sixteenths; -16 gives the blurred picture.
  int sharpening_;
  u8 darkest_, brightest_;
};

}  // namespace sim
