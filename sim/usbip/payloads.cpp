#include "sim/usbip/payloads.h"

#include <linux/usb/video.h>

#include <algorithm>
#include <utility>

namespace sim {

namespace {

constexpr i64 kClockMhz = 48;
constexpr std::size_t kLongestHeader = 12;

// A bus of wires counts its frames. This one has none, and Linux's virtual host controller says 0 as well.
constexpr u16 kBusFrame = 0;

u32 clock_at(i64 nanoseconds) { return static_cast<u32>(nanoseconds / 1000 * kClockMhz); }

}  // namespace

void PayloadCutter::begin(std::vector<u8> frame, i64 time) {
  frame_ = std::move(frame);
  cut_ = 0;
  time_ = time;
}

void PayloadCutter::reset() { begin({}, 0); }

std::size_t PayloadCutter::cut(std::span<u8> packet, i64 time) {
  if (done() || packet.size() <= kLongestHeader) return 0;
  std::size_t header = 2;
  packet[1] = UVC_STREAM_EOH | UVC_STREAM_SCR | frame_id_;
  if (cut_ == 0) {
    packet[1] |= UVC_STREAM_PTS;
    put_le32(&packet[header], clock_at(time_));
    header += 4;
  }
  put_le32(&packet[header], clock_at(time));
  put_le16(&packet[header + 4], kBusFrame);
  header += 6;
  packet[0] = static_cast<u8>(header);
  const std::size_t part = std::min(packet.size() - header, frame_.size() - cut_);
  std::copy_n(frame_.begin() + static_cast<std::ptrdiff_t>(cut_), part,
              packet.begin() + static_cast<std::ptrdiff_t>(header));
  cut_ += part;
  if (done()) {
    packet[1] |= UVC_STREAM_EOF;
    frame_id_ ^= UVC_STREAM_FID;
  }
  return header + part;
}

}  // namespace sim
