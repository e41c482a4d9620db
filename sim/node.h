// The gadget driver's node /dev/video0 of a run: the service calls it through sys_sim.cpp, the USB host plays
// the other side. Its state lies in a shared file of the run, so both sides may be different processes.
#pragma once

#include <linux/usb/ch9.h>
#include <linux/videodev2.h>

#include <chrono>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "platform/uvc_events.h"

namespace sim {

/// The answer of the service to one class request.
struct ControlAnswer {
  std::vector<u8> data;  ///< GET: the bytes that reached the host; SET: empty
  bool stalled = false;  ///< negative length, or no answer within the time
};

/// The USB host's end of the node. All calls are safe from several threads.
class NodeHost {
 public:
  explicit NodeHost();
  ~NodeHost();

  /// Waits until the service has subscribed to SETUP (the device then shows up on the bus).
  bool wait_for_device(std::chrono::milliseconds limit);
  void connect();
  void disconnect();

  /// One class request; `data` is the data stage of a SET request. Waits for the service's answer.
  ControlAnswer control(const usb_ctrlrequest& setup, std::span<const u8> data = {},
                        std::chrono::milliseconds limit = std::chrono::seconds(5));
  /// SET_INTERFACE 1 or 0: the event, then a wait for the service's VIDIOC_STREAMON or VIDIOC_STREAMOFF.
  bool stream_on(std::chrono::milliseconds limit = std::chrono::seconds(5));
  bool stream_off(std::chrono::milliseconds limit = std::chrono::seconds(5));

  /// Takes the oldest queued buffer's payload into `frame` and marks the buffer done; false when none came
  /// within `limit` or the stream is off.
  bool take_frame(std::vector<u8>& frame, std::chrono::milliseconds limit);

  /// Queues an event as it is (for tests of the service's event handling).
  void raise(const v4l2_event& event);
  /// Takes the next response that the service sent without waiting for the host's side of it.
  std::optional<UvcRequestData> next_response(std::chrono::milliseconds limit);

  /// Faults as text, one a call: "fail QUERYBUF 2" (the 2nd call of a kind from now on, "fail QBUF 3-5",
  /// "fail STREAMON *"), with " errno=N" optional; "grant N" buffers; "clear". False when it is not understood.
  bool script(std::string_view fault);
  /// Every call of the service on the node so far, a line each: name, important arguments, result.
  std::string call_log() const;
};

}  // namespace sim
