// The camera's encoder: JPEG, H.264 or H.265, as the encoder-settings record requests. Every picture yields
// its frame at once. Video begins with a key frame, and key frames carry the parameter sets (annex B).
#pragma once

#include <optional>
#include <span>

#include "ipc/velto_commands.h"
#include "sim/media/av.h"

namespace sim {

/// What a record's rate-control words request, clamped to what an encoder can do. The two scales limit the
/// quantiser (2..31 for JPEG, 1..51 for video).
struct RateLimits {
  int bit_rate;  ///< bits per second; 0: the scales are equal and decide alone
  int best_scale, worst_scale;
  bool operator==(const RateLimits&) const = default;
};
RateLimits rate_limits(const EncoderSettings& settings);
/// Pictures from one key frame to the next; 1 for JPEG.
int key_frame_interval(const EncoderSettings& settings);

struct EncodedFrame {
  u32 type;  ///< as in EncFrameSlot: 3 JPEG, 1 video key frame, 0 another video frame
  std::span<const u8> data;
};

class Encoder {
 public:
  /// Encodes a picture of the size in the settings. Another key-frame interval takes effect without a break;
  /// any other change opens a new encoder. The data belongs to the encoder and is valid until the next call.
  /// Returns nothing if encoding fails.
  std::optional<EncodedFrame> encode(const EncoderSettings& settings, AVFrame& picture, bool key_frame);

 private:
  struct Setup {
    int width, height, frame_rate, codec;
    RateLimits rate;
    bool operator==(const Setup&) const = default;
  };
  bool follow(const Setup& setup);
  void steer_jpeg_scale(int frame_size);

  Setup setup_{};
  AvPtr<AVCodecContext> codec_;
  AvPtr<AVPacket> packet_{av_packet_alloc()};
  i64 pictures_ = 0;
  int since_key_ = 0;
  /// Between key frames: a shorter interval takes effect at once, a longer one from the next key frame.
  int interval_ = 1;
  int jpeg_scale_ = 0;
};

}  // namespace sim
