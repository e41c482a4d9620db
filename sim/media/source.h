// A video or picture file as the scene: decoded, scaled and repeated for ever.
#pragma once

#include <memory>
#include <string>

#include "sim/media/av.h"

namespace sim {

class Source {
 public:
  /// Returns null if libavformat finds no picture in the file.
  static std::unique_ptr<Source> open(const std::string& path);

  /// Scales the next picture into `picture`, whose size and format it keeps. A video starts again at its end.
  /// Returns false if nothing changed, because a file with a single picture fills `picture` only once.
  bool next(AVFrame& picture);

 private:
  bool open_file(const std::string& path);
  bool decode();

  AvPtr<AVFormatContext> file_;
  AvPtr<AVCodecContext> decoder_;
  AvPtr<SwsContext> scaler_;
  AvPtr<AVFrame> decoded_{av_frame_alloc()};
  AvPtr<AVPacket> packet_{av_packet_alloc()};
  int stream_ = -1;
  unsigned pictures_ = 0;  ///< read since the file was opened
  bool still_ = false;
};

}  // namespace sim
