// What the simulated camera sees: a test card with a moving part, or a file, with the frame counter drawn
// over it. One scene serves one picture size.
#pragma once

#include <memory>
#include <string>

#include "common/bytes.h"
#include "sim/media/av.h"
#include "sim/media/picture_settings.h"
#include "sim/media/source.h"
#include "sim/media/view.h"
#include "sim/parties/camera_head.h"

namespace sim {

class Scene {
 public:
  /// With `full_range`, luma is 0..255 as in JPEG (AV_PIX_FMT_YUVJ420P); otherwise all luma stays within
  /// 16..235. If the source cannot be read, prints an error and shows the test card. Width and height
  /// must be even.
  Scene(const std::string& source, int width, int height, bool full_range);

  /// Returns the next picture as the camera sees it, with this counter. It belongs to the scene and is valid
  /// until the next call.
  AVFrame& picture(u32 counter, const CameraView& view);

  bool shows(int width, int height, bool full_range) const;

 private:
  bool next_tile();
  void look(const CameraView& view);
  void draw_moving_part(u32 counter);

  bool full_range_;
  std::unique_ptr<Source> source_;
  AvPtr<AVFrame> tile_;  ///< the scene without its moving part
  CameraView view_;
  ViewMap map_;
  PictureLook look_;
  AvPtr<AVFrame> seen_;  ///< the tile as view_ shows it; unused while that is the tile itself
  AvPtr<AVFrame> picture_;
};

}  // namespace sim
