// The USB host of the simulated camera: knows the formats that the camera's descriptors tell, negotiates as a
// PC does, takes frames off the bus in a thread of its own and has them checked in another.
#pragma once

#include <atomic>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <ostream>
#include <span>
#include <string>

#include "platform/uvc_formats.h"
#include "sim/host/conversation.h"
#include "sim/host/frame_check.h"
#include "sim/host/picture_compare.h"

namespace sim {

/// A format as the descriptors tell it: sizes in the order of bFrameIndex, from 1 on.
struct HostFormat {
  StreamFormat format;
  const char* name;
  std::span<const FrameSize> sizes;
};
/// In the order of bFormatIndex, from 1 on.
std::span<const HostFormat> host_formats();
const HostFormat& host_format(StreamFormat format);

struct StreamChoice {
  StreamFormat format;
  FrameSize size;
  u32 rate;  ///< frames per second, 1 or more
};
/// Such as "MJPEG 1280x720".
std::string name_of(const StreamChoice& choice);
/// What a probe or commit block chooses; nothing when it names no format, frame size or interval.
std::optional<StreamChoice> choice_in(std::span<const u8> block);

struct StreamResult {
  StreamReport report;
  unsigned long payloads = 0;    ///< everything that was taken
  bool copied = true;            ///< false: the copy could not be written
  double seconds = 0;            ///< from the first picture's arrival to the end
  double first_picture_ms = -1;  ///< from SET_INTERFACE to its arrival; negative: none came
  double rate() const { return seconds > 0 ? static_cast<double>(report.frames) / seconds : 0; }
};

/// How long a high-speed isochronous endpoint is busy with a frame: 3 x 1024 bytes a microframe of 125 us,
/// 12 of them the payload header.
constexpr std::chrono::microseconds bus_time(std::size_t bytes) {
  return std::chrono::microseconds(125) * ((bytes + 3059) / 3060);
}

/// A payload with data of a running stream.
struct ReceivedFrame {
  const StreamChoice& choice;
  std::span<const u8> payload;
  i64 arrived;             ///< CLOCK_MONOTONIC in nanoseconds
  const AVFrame* picture;  ///< null unless the payload is one whole new picture
};

/// One stream at a time. unplug(), replug(), plugged(), unplugs(), progress() and picture() may be called
/// from any thread.
class UsbHost {
 public:
  /// Class requests go through the conversation. `paced`: frames take bus_time() to arrive.
  UsbHost(NodeHost& node, Conversation& conversation, bool paced);
  ~UsbHost();

  /// Called with what was committed before each stream, and with null after it. Set before the first stream.
  void on_stream(std::function<void(const StreamChoice*)> handler) { on_stream_ = std::move(handler); }
  /// Called with every payload, after its check and on the thread that checks; what it gets is valid during
  /// the call. Set before the first stream.
  void on_frame(std::function<void(const ReceivedFrame&)> handler) { on_frame_ = std::move(handler); }
  /// What a host asks when the device appears. False with error() when an answer is wrong.
  bool enumerate();
  /// Negotiates and starts a stream. Payloads with data go to `copy` as well, which outlives the stream.
  /// False with error() when the camera refuses.
  bool start(const StreamChoice& choice, std::ostream* copy = nullptr);
  /// Of the running stream so far.
  StreamResult progress() const;
  /// Waits for a whole picture of the running stream that is made after this call, and writes it as PNG.
  /// Nothing when none came within the limit or the file cannot be written.
  std::optional<MeasuredPicture> picture(const std::string& png_path,
                                         std::chrono::milliseconds limit = std::chrono::seconds(5));
  /// Ends the stream, if there is one; everything that was taken is checked then. Writes the last whole
  /// picture as PNG.
  StreamResult stop(const std::string& png_path);

  /// Called for a cable that is put in (true) or pulled, in place of telling the node, by whoever lets a host
  /// of its own have the camera. Set before the first replug().
  void on_cable(std::function<void(bool in)> handler) { on_cable_ = std::move(handler); }
  void unplug();
  void replug();
  bool plugged() const { return plugged_; }
  /// A host that rests takes no frames.
  void rest(bool rests) { rests_ = rests; }
  unsigned unplugs() const { return unplugs_; }  ///< so far
  /// Of the last enumerate(), start() or stop(); empty: nothing was wrong.
  const std::string& error() const { return error_; }

 private:
  class Stream;

  std::shared_ptr<Stream> stream() const;
  bool set(u8 selector, std::span<const u8> block);
  bool get(u8 request, std::span<u8> answer);  ///< of the probe control
  bool negotiate(const StreamChoice& choice);
  bool fail(std::string what);

  NodeHost& node_;
  Conversation& conversation_;
  const bool paced_;
  std::atomic<bool> plugged_ = false;
  std::atomic<unsigned> unplugs_ = 0;
  std::atomic<bool> rests_ = false;
  std::string error_;
  std::function<void(const StreamChoice*)> on_stream_ = [](const StreamChoice*) {};
  std::function<void(bool in)> on_cable_ = [this](bool in) { in ? node_.connect() : node_.disconnect(); };
  std::function<void(const ReceivedFrame&)> on_frame_ = [](const ReceivedFrame&) {};
  mutable std::mutex stream_lock_;  ///< guards the pointer
  std::shared_ptr<Stream> stream_;
};

}  // namespace sim
