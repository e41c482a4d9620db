// What the simulated camera sees: a test card with a moving part, or a file, with the frame counter burnt
// over it. One scene serves one picture size.
#pragma once

#include <memory>
#include <string>

#include "common/bytes.h"
#include "sim/av.h"
#include "sim/source.h"

namespace sim {

class Scene {
 public:
  /// `full_range`: luma uses 0..255 as in JPEG (AV_PIX_FMT_YUVJ420P); otherwise all luma stays
  /// within 16..235. An unreadable source is reported, and the test card shown. Width and height are even.
  Scene(const std::string& source, int width, int height, bool full_range);

  /// The next picture, with this counter; the scene's own until the next call.
  AVFrame& picture(u32 counter);

  bool shows(int width, int height, bool full_range) const;

 private:
  void draw_moving_part(u32 counter);

  bool full_range_;
  std::unique_ptr<Source> source_;
  AvPtr<AVFrame> background_;
  AvPtr<AVFrame> picture_;
};

}  // namespace sim
