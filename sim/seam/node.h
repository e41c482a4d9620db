// The gadget driver's node /dev/video0 of a run: the service calls it through sys_sim.cpp, and
// the USB host plays the other side. Its state is in a shared file of the run, so the two sides
// may be different processes.
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

/// The service's answer to one class request.
struct ControlAnswer {
  std::vector<u8> data{};  ///< for a GET, the bytes that reached the host; empty for a SET
  bool stalled = false;    ///< negative length, no device, or no answer in time
  bool timed_out = false;  ///< the last of these
  double waited_ms = 0;    ///< from the event to the answer
};

/// The USB host's end of the current run's node; it holds nothing itself. Any thread may call it. A service
/// that was killed counts as having closed the node.
class NodeHost {
 public:
  /// Waits until the service has subscribed to SETUP (the device then shows up on the bus), and a little
  /// longer for its other subscriptions. Returns false when the limit has passed.
  bool wait_for_device(std::chrono::milliseconds limit);
  /// Queues CONNECT.
  void connect();
  /// Queues DISCONNECT. If a stream is running, also cuts it off: VIDIOC_QBUF and VIDIOC_DQBUF fail with
  /// ENODEV until VIDIOC_STREAMOFF.
  void disconnect();

  /// Makes one class request; `data` is the data stage of a SET request. Waits for the service's answer, but
  /// not for its handling of a DATA event. The driver itself stalls requests of more than 64 bytes.
  ControlAnswer control(const usb_ctrlrequest& setup, std::span<const u8> data = {},
                        std::chrono::milliseconds limit = std::chrono::seconds(5));
  /// Waits until the service has served every event and calls VIDIOC_DQEVENT for the next. Returns false when
  /// the limit has passed, and true if nobody has the node open.
  bool settle(std::chrono::milliseconds limit);
  /// SET_INTERFACE 1 or 0: queue the event, then wait for a successful VIDIOC_STREAMON or VIDIOC_STREAMOFF. A
  /// VIDIOC_STREAMOFF that comes while SET_INTERFACE 1 waits leaves the endpoint off: no frame arrives.
  /// Return false when the limit has passed.
  bool stream_on(std::chrono::milliseconds limit = std::chrono::seconds(5));
  bool stream_off(std::chrono::milliseconds limit = std::chrono::seconds(5));

  /// Returns true from a successful VIDIOC_STREAMON to VIDIOC_STREAMOFF or the host's disconnect().
  bool streaming() const;

  /// Takes the oldest queued buffer's payload into `frame` and marks the buffer done. Returns false if none
  /// came within `limit` or the stream is off.
  bool take_frame(std::vector<u8>& frame, std::chrono::milliseconds limit);

  /// Queues an event as it is, for tests of the service's event handling. An event without a time
  /// is stamped now.
  void raise(const v4l2_event& event);
  /// Takes the answer to a SETUP that raise() queued.
  std::optional<UvcRequestData> next_response(std::chrono::milliseconds limit);

  /// Sets a fault, given as text, one per call: "fail QUERYBUF 2" (the 2nd call of a kind from now on), "fail
  /// QBUF 3-5", "fail STREAMON *", each with an optional " errno=N" at its end (a number; EIO by default);
  /// "grant N" for at most N buffers (32 at the start); "reqbufs returns count" as newer drivers do; "DQBUF
  /// gives index N" and "QUERYBUF gives index N" for answers that name that buffer; "clear" undoes all of
  /// them. Returns false if the text is not understood or there are 16 faults already. The kinds are OPEN
  /// QUERYCAP S_FMT G_FMT REQBUFS QUERYBUF MMAP QBUF DQBUF STREAMON STREAMOFF SUBSCRIBE DQEVENT (only calls
  /// that find an event) SEND_RESPONSE PRIVATE, and for other devices MEM_MMAP I2C_SLAVE I2C_REG_WIDTH
  /// I2C_DATA_WIDTH I2C_READ I2C_WRITE. Faults may be set before the node is opened.
  bool script(std::string_view fault);
  /// Returns the last 4096 calls on the node, one per line: "QBUF index=0 bytesused=2 -> 0", "DQBUF index=1
  /// bytesused=0 -> EAGAIN". A VIDIOC_DQEVENT that finds no event is left out.
  std::string call_log() const;
  /// Returns what a kernel would not have survived, one per line. Empty if nothing was wrong.
  std::vector<std::string> protocol_errors() const;
};

}  // namespace sim
