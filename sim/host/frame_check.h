// What the USB host does with a received frame: decode it (libavcodec), read the burnt-in counter, and judge
// whether the stream is whole.
#pragma once

#include <memory>
#include <span>

#include "common/bytes.h"
#include "sim/media/av.h"

namespace sim {

/// The largest size in bytes of a payload without a picture.
constexpr std::size_t kEmptyPayload = 2;

/// The values are those of bFormatIndex.
enum class StreamFormat { kMjpeg = 1, kH264 = 2, kYuy2 = 3, kH265 = 4 };

struct StreamReport {
  bool counted = true;         ///< false: frames show no counter and are known by their bytes
  unsigned long unseen = 0;    ///< of those, frames that nobody saw in the ring, so with unknown bytes
  unsigned long frames = 0;    ///< whole frames with a readable counter, or with bytes as they were written
  unsigned long empty = 0;     ///< empty payloads after the first picture
  unsigned long leading = 0;   ///< empty payloads before the first picture: normal at a stream start
  unsigned long lost = 0;      ///< counters skipped
  unsigned long torn = 0;      ///< not decodable, wrong size, or the two burnt-in counters differ
  unsigned long repeated = 0;  ///< the same counter again
  unsigned long stale = 0;     ///< older than the stream's start, or going backwards
  u64 bytes = 0;               ///< of whole frames
  double latency_ms = 0;       ///< mean, from scene to host
  double latency_max_ms = 0;
  bool whole() const { return frames > 0 && !empty && !lost && !torn && !repeated && !stale; }
};

class FrameChecker {
 public:
  /// `start` is the time of the stream's start, CLOCK_MONOTONIC in nanoseconds; 0 means now.
  FrameChecker(StreamFormat format, u32 width, u32 height, i64 start = 0);
  ~FrameChecker();

  /// Checks one payload as it came off the bus; does not copy it. `arrived` is CLOCK_MONOTONIC in
  /// nanoseconds; 0 means now.
  void feed(std::span<const u8> payload, i64 arrived = 0);
  const StreamReport& report() const;
  /// Returns the last whole picture, valid until the next payload, or null. Its pts is the time at which it
  /// was made, CLOCK_MONOTONIC in nanoseconds, or 0 if unknown.
  const AVFrame* picture() const;

 private:
  struct Impl;
  std::unique_ptr<Impl> impl_;
};

}  // namespace sim
