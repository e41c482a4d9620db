// Cuts frames into the payloads of a video stream, as the kernel's gadget driver does: one to an isochronous
// packet, each with the header of UVC 1.0 (2.4.3.3): frame id, end of frame, presentation time in the first
// one of a frame, and the source clock of 48 MHz.
#pragma once

#include <span>
#include <vector>

#include "common/bytes.h"

namespace sim {

class PayloadCutter {
 public:
  /// Takes a frame in place of the present one; `time` is CLOCK_MONOTONIC in nanoseconds.
  void begin(std::vector<u8> frame, i64 time);
  /// Forgets the frame.
  void reset();
  bool done() const { return cut_ >= frame_.size(); }
  /// Writes the frame's next payload into `packet`, which goes over the bus at `time`. Returns its length; 0
  /// if no frame is left, or if the packet has no room for more than a header.
  std::size_t cut(std::span<u8> packet, i64 time);

 private:
  std::vector<u8> frame_;
  std::size_t cut_ = 0;
  i64 time_ = 0;
  u8 frame_id_ = 0;
};

}  // namespace sim
