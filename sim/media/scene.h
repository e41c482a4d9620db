// What the simulated camera sees: a test card with a moving part, or a file, with the frame counter burnt
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
  /// `full_range`: luma uses 0..255 as in JPEG (AV_PIX_FMT_YUVJ420P); otherwise all luma stays
  /// within 16..235. An unreadable source is reported, and the test card shown. Width and height are even.
  Scene(const std::string& source, int width, int height, bool full_range);

  /// The next picture as the camera sees it, with this counter; the scene's own until the next call.
  AVFrame& picture(u32 counter, const CameraView& view);

  bool shows(int width, int height, bool full_range) const;

 private:
  bool next_tile();
  void look(const CameraView& view);
  void draw_moving_part(u32 counter);

  bool full_range_;
  std::unique_ptr<Source> source_;
  AvPtr<AVFrame> tile_;  ///< the scene without moving part
  CameraView view_;
  ViewMap map_;
  PictureLook look_;
  AvPtr<AVFrame> seen_;  ///< the tile as view_ shows it; unused while that is the tile itself
  AvPtr<AVFrame> picture_;
};

}  // namespace sim
