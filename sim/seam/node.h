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
  std::vector<u8> data{};  ///< GET: the bytes that reached the host; SET: empty
  bool stalled = false;    ///< negative length, no device, or no answer within the time
  bool timed_out = false;  ///< the last of these
  double waited_ms = 0;    ///< from the event to the answer
};

/// The USB host's end of the current run's node; holds nothing itself. All calls are safe from several
/// threads. A service that was killed counts as having closed the node.
class NodeHost {
 public:
  /// Waits until the service has subscribed to SETUP (the device then shows up on the bus), and a little
  /// longer for its other subscriptions.
  bool wait_for_device(std::chrono::milliseconds limit);
  /// Queues CONNECT.
  void connect();
  /// Queues DISCONNECT. While streaming it also cuts the stream off: VIDIOC_QBUF and VIDIOC_DQBUF fail with
  /// ENODEV until VIDIOC_STREAMOFF.
  void disconnect();

  /// One class request; `data` is the data stage of a SET request. Waits for the service's answer, not for
  /// what it does with a DATA event. More than 64 bytes are stalled by the driver itself.
  ControlAnswer control(const usb_ctrlrequest& setup, std::span<const u8> data = {},
                        std::chrono::milliseconds limit = std::chrono::seconds(5));
  /// Waits until the service has served every event and calls VIDIOC_DQEVENT for the next; false when the
  /// limit passed. True as well when nobody has the node open.
  bool settle(std::chrono::milliseconds limit);
  /// SET_INTERFACE 1 or 0: the event, then a wait for a successful VIDIOC_STREAMON or VIDIOC_STREAMOFF. A
  /// VIDIOC_STREAMOFF that comes while SET_INTERFACE 1 waits leaves the endpoint off: no frame arrives.
  bool stream_on(std::chrono::milliseconds limit = std::chrono::seconds(5));
  bool stream_off(std::chrono::milliseconds limit = std::chrono::seconds(5));

  /// Takes the oldest queued buffer's payload into `frame` and marks the buffer done; false when none came
  /// within `limit` or the stream is off.
  bool take_frame(std::vector<u8>& frame, std::chrono::milliseconds limit);

  /// Queues an event as it is (for tests of the service's event handling); one without time is stamped now.
  void raise(const v4l2_event& event);
  /// Takes the answer to a SETUP that raise() queued.
  std::optional<UvcRequestData> next_response(std::chrono::milliseconds limit);

  /// Faults as text, one a call: "fail QUERYBUF 2" (the 2nd call of a kind from now on), "fail QBUF 3-5",
  /// "fail STREAMON *", with " errno=N" (a number, else EIO) behind it; "grant N" buffers at most (32 at
  /// start); "reqbufs returns count" as newer drivers do; "DQBUF gives index N", "QUERYBUF gives index N":
  /// the answers name that buffer; "clear" undoes all. False when it is not understood or there are 16 faults
  /// already. Kinds: OPEN QUERYCAP S_FMT G_FMT REQBUFS QUERYBUF MMAP QBUF DQBUF
  /// STREAMON STREAMOFF SUBSCRIBE DQEVENT (those with an event) SEND_RESPONSE PRIVATE; of other devices:
  /// MEM_MMAP I2C_SLAVE I2C_REG_WIDTH I2C_DATA_WIDTH I2C_READ I2C_WRITE. May be set before the node is
  /// opened.
  bool script(std::string_view fault);
  /// The last 4096 calls on the node, a line each: "QBUF index=0 bytesused=2 -> 0", "DQBUF index=1
  /// bytesused=0 -> EAGAIN". VIDIOC_DQEVENT without an event is left out.
  std::string call_log() const;
  /// What a kernel would not have survived, a line each. Empty is right.
  std::vector<std::string> protocol_errors() const;
};

}  // namespace sim
