// Encoder settings and stream reports, for the tests of the media process and of the frame checker.
#pragma once

#include <chrono>
#include <string>
#include <thread>
#include <vector>

#include "sim/encoder.h"
#include "sim/frame_check.h"

namespace sim {

using Bytes = std::vector<u8>;

inline void sleep_ms(int ms) { std::this_thread::sleep_for(std::chrono::milliseconds(ms)); }

inline EncoderSettings settings(EncoderCodec codec, i32 width = 320, i32 height = 240, i32 rate = 60) {
  switch (codec) {
    case kCodecMjpeg:
      return {width, height, rate, 0, codec, 1, {40960, 99, 60}};
    case kCodecH264:
      return {width, height, rate, 0, codec, 0, {1, 60, 12288}};
    default:
      return {width, height, rate, 0, codec, 0, {60, 12288}};
  }
}
inline EncoderSettingsMessage start(const EncoderSettings& wanted) { return {2, 1, wanted}; }
inline EncoderSettingsMessage stop(const EncoderSettings& wanted) { return {2, 0, wanted}; }

inline StreamFormat format_of(i32 codec) {
  constexpr StreamFormat kFormats[] = {StreamFormat::kH264, StreamFormat::kMjpeg, StreamFormat::kH265,
                                       StreamFormat::kYuy2};
  return kFormats[codec];
}

/// What a report counts besides the bytes, such as "frames=3 lost=1".
inline std::string text(const StreamReport& r) {
  std::string line;
  for (auto [name, value] : {std::pair{"frames", r.frames},
                             {"empty", r.empty},
                             {"leading", r.leading},
                             {"lost", r.lost},
                             {"torn", r.torn},
                             {"repeated", r.repeated},
                             {"stale", r.stale}}) {
    if (value) line += std::string(line.empty() ? "" : " ") + name + "=" + std::to_string(value);
  }
  return line;
}

}  // namespace sim
