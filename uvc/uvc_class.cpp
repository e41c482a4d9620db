#include "uvc/uvc_class.h"

#include <algorithm>
#include <cstring>
#include <utility>

#include "common/cancel.h"
#include "common/wait_limit.h"
#include "ipc/file_msg_drv.h"
#include "platform/alarm.h"
#include "platform/sys.h"
#include "support/print.h"
#include "uvc/uvc_state.h"
#include "uvc/uvc_waiting.h"

constexpr char kPrintFile[] = "uvc_class.c";

namespace {

constexpr useconds_t kPause = 1000;
constexpr u32 kTurnsToStopAgain = 10;

using Clock = WaitLimit::Clock;
constexpr std::chrono::milliseconds kHostPatience{5000};
constexpr std::chrono::milliseconds kServerShare{4400};  // of an event's time, for the system server
constexpr std::chrono::milliseconds kPromptAnswer{20};   // sent without a look at later events
constexpr std::chrono::milliseconds kLeastForData{100};  // a SET is tried, however late it is

i32 buffer_type_ioctl(const UvcEventLoop& loop, unsigned long request) {
  i32 type = V4L2_BUF_TYPE_VIDEO_OUTPUT;
  return sys::ioctl(*loop.device, request, &type);
}

// Returns true if a turn without an event, or with one that was taken already, has something to do soon.
bool has_own_work(const UvcEventLoop& loop) {
  return loop.put_off || loop.looked_ahead || loop.stop_again_in > 0;
}

bool waits_in_kernel(const UvcEventLoop& loop) { return loop.polls_between_pauses == 0; }

void pause_between_polls(UvcEventLoop& loop) {
  if (uvc_stream_state.stream_on && loop.polls < loop.polls_between_pauses) {
    ++loop.polls;
    return;
  }
  if (waits_in_kernel(loop) && !has_own_work(loop)) return wait_for_event(*loop.device);
  if (uvc_stream_state.stream_on) loop.polls = 0;
  CancelPoint cancel_point;
  sys::usleep(kPause);
}

i32 end_stream(const UvcEventLoop& loop) {
  const std::lock_guard lock(stream_end_lock);
  uvc_stream_state.stream_on = 0;
  return buffer_type_ioctl(loop, VIDIOC_STREAMOFF);
}

// Stops the node, and arranges another attempt in later turns without an event when it refuses. Returns the
// result of VIDIOC_STREAMOFF.
i32 stop_node(UvcEventLoop& loop) {
  const i32 result = end_stream(loop);
  loop.left_streaming = result < 0;
  loop.stop_again_in = result < 0 ? kTurnsToStopAgain : 0;
  return result;
}

// A node that a DISCONNECT left streaming must be stopped before the host selects the streaming interface
// again: current kernels crash when it is started without having been stopped.
void on_connect(UvcEventLoop& loop, const v4l2_event&) {
  PRINT_INFO("UVC_EVENT_CONN\n");
  if (loop.left_streaming) stop_node(loop);
  uvc_stream_state.connected = 1;
  uvc_stream_state.stream_stopped = 0;
}

// Deliberate: the node is not stopped here but in on_connect.
void on_disconnect(UvcEventLoop& loop, const v4l2_event&) {
  PRINT_INFO("UVC_EVENT_DISCONN\n");
  if (u32* word = usb_disconnect_word.load()) std::atomic_ref<u32>(*word).store(1);
  loop.put_off = false;
  uvc_stream_state.stream_stopped = 1;
  uvc_stream_state.connected = 0;
  if (!uvc_stream_state.stream_on) return;
  uvc_stream_state.stream_on = 0;
  loop.left_streaming = true;
}

// The host's SET_INTERFACE is under way, even when the start fails: at a VIDIOC_STREAMOFF now, current
// kernels would switch off the endpoint that the host has just selected.
void on_stream_on(UvcEventLoop& loop, const v4l2_event&) {
  PRINT_INFO("set inter 1 UVC_EVENT_STREAMON\n");
  loop.stop_again_in = 0;
  const i32 result = buffer_type_ioctl(loop, VIDIOC_STREAMON);
  if (result < 0) {
    PRINT_INFO("VIDIOC_STREAMON  failed (%d)\n", result);
    return;
  }
  loop.left_streaming = false;
  if (!uvc_stream_state.streaming()) uvc_stream_state.stream_starts = uvc_stream_state.stream_starts + 1;
  uvc_stream_state.stream_on = 1;
  uvc_stream_state.stream_stopped = 0;
}

void on_stream_off(UvcEventLoop& loop, const v4l2_event&) {
  PRINT_INFO("UVC_EVENT_STREAMOFF\n");
  const i32 result = stop_node(loop);
  if (result < 0) PRINT_INFO("VIDIOC_STREAMOFF  failed (%d)\n", result);
}

using Handler = u32 (*)(UvcRequestContext*);

Handler handler_of(u8 request) {
  static constexpr Handler kHandlers[] = {uvc_getcur, uvc_getmin,  uvc_getmax, uvc_getres,
                                          uvc_getlen, uvc_getinfo, uvc_getdef};
  const bool known = request >= UVC_GET_CUR && request <= UVC_GET_DEF;
  return known ? kHandlers[request - UVC_GET_CUR] : nullptr;
}

// Deliberate: only the low byte of wLength counts, as no control is longer. The record bounds it further.
i32 data_length(const UvcRequestContext& request) {
  return std::min<i32>(request.wLength & 0xFF, kUvcRequestDataSize);
}

void read_setup(UvcRequestContext& request, const u8* packet) {
  request.bRequestType = packet[0];
  request.bRequest = packet[1];
  request.wValue = get_le16(packet + 2);
  request.wIndex = get_le16(packet + 4);
  request.wLength = get_le16(packet + 6);
}

// When the driver queued the event: its own stamp, or now if it has none.
Clock::time_point time_of(const v4l2_event& event) {
  const auto stamp =
      std::chrono::seconds(event.timestamp.tv_sec) + std::chrono::nanoseconds(event.timestamp.tv_nsec);
  const Clock::time_point now = Clock::now();
  return stamp.count() > 0 ? std::min(Clock::time_point(stamp), now) : now;
}

bool take_event(UvcEventLoop& loop, v4l2_event& event) {
  if (std::exchange(loop.looked_ahead, false)) {
    event = loop.next;
    return true;
  }
  return sys::ioctl(*loop.device, VIDIOC_DQEVENT, &event) >= 0;
}

// Whether the host was unplugged after its request: nobody waits for the answer then, and the driver would
// send it to the next host that makes one.
bool host_has_gone(UvcEventLoop& loop) {
  if (!loop.looked_ahead) loop.looked_ahead = take_event(loop, loop.next);
  return loop.looked_ahead && loop.next.type == UVC_EVENT_DISCONNECT;
}

// Every SETUP is answered, known or not, with what the answer buffer holds.
void answer(UvcEventLoop& loop) {
  UvcRequestContext& request = loop.request;
  loop.put_off = false;
  const Clock::time_point start = Clock::now();
  if (const Handler handler = handler_of(request.bRequest)) handler(&request);
  if (Clock::now() - start > kPromptAnswer && host_has_gone(loop)) return;
  request.data.length = data_length(request);
  std::memcpy(request.data.data, uvc_resp_buf, request.data.length);
  const i32 result = sys::ioctl(*loop.device, UVCIOC_SEND_RESPONSE, &request.data);
  if (result < 0) PRINT_INFO("UVCIOC_SEND_RESPONSE IN failed (%d)\n", result);
}

// No newer SETUP came, so the host may still be waiting. The server is not asked: the limit is over.
void answer_late(UvcEventLoop& loop) {
  const WaitLimit passed(Clock::now());
  answer(loop);
}

void on_setup(UvcEventLoop& loop, const v4l2_event& event) {
  read_setup(loop.request, event.u.data);
  loop.put_off = event.pending > 0 && Clock::now() - time_of(event) > kHostPatience;
  if (loop.put_off || (event.pending > 0 && host_has_gone(loop))) return;
  const WaitLimit limit(time_of(event) + kServerShare);
  answer(loop);
}

void on_data(UvcEventLoop& loop, const v4l2_event& event) {
  UvcRequestContext& request = loop.request;
  const i32 length = data_length(request);
  std::memcpy(&request.data, event.u.data, sizeof(request.data.length) + length);
  std::memcpy(uvc_resp_buf, request.data.data, length);
  const WaitLimit limit(std::max(time_of(event) + kServerShare, Clock::now() + kLeastForData));
  uvc_setcur(&request);
}

void on_no_event(UvcEventLoop& loop) {
  if (loop.put_off) answer_late(loop);
  if (loop.stop_again_in > 0 && --loop.stop_again_in == 0) stop_node(loop);
}

// A system server that has been restarted may have made the parameter segment anew.
void follow_parameter_segment() {
  if (u32* flags = GetSysRequestFlags()) usb_disconnect_word = flags;
  if (const CameraCache* cache = GetSysCameraCache()) camera_cache = cache;
}

void serve(UvcEventLoop& loop, const v4l2_event& event) {
  follow_parameter_segment();
  static constexpr void (*kEventHandlers[])(UvcEventLoop&, const v4l2_event&) = {
      on_connect, on_disconnect, on_stream_on, on_stream_off, on_setup, on_data};
  const u32 at = event.type - UVC_EVENT_CONNECT;
  if (at < std::size(kEventHandlers)) kEventHandlers[at](loop, event);
  if (waits_in_kernel(loop)) wake_main_thread();
}

}  // namespace

i32 uvc_event_subscribe(UvcEventLoop& loop) {
  static constexpr u32 kTypes[] = {UVC_EVENT_SETUP,     UVC_EVENT_DATA,    UVC_EVENT_STREAMON,
                                   UVC_EVENT_STREAMOFF, UVC_EVENT_CONNECT, UVC_EVENT_DISCONNECT};
  for (const u32 type : kTypes) {
    v4l2_event_subscription subscription = {};
    subscription.type = type;
    const i32 result = sys::ioctl(*loop.device, VIDIOC_SUBSCRIBE_EVENT, &subscription);
    if (result >= 0) continue;
    // Deliberate: every type but the first is reported as UVC_EVENT_DATA.
    if (type == UVC_EVENT_SETUP) {
      PRINT_INFO("VIDIOC_SUBSCRIBE_EVENT failed (%d)\n", result);
    } else {
      PRINT_INFO("set UVC_EVENT_DATA failed (%d)\n", result);
    }
    return -1;
  }
  buffer_type_ioctl(loop, kUvcPrivateStart);
  return 0;
}

void uvc_event_turn(UvcEventLoop& loop) {
  pause_between_polls(loop);
  v4l2_event event;
  if (!take_event(loop, event)) return on_no_event(loop);
  serve(loop, event);
}

void* uvc_class_procesing(void* device) {
  int former_state;
  pthread_setcancelstate(PTHREAD_CANCEL_DISABLE, &former_state);
  Alarm::prepare();
  UvcEventLoop loop = {.device = static_cast<const Word*>(device), .request = {}};
  if (uvc_event_subscribe(loop) < 0) return nullptr;
  for (;;) uvc_event_turn(loop);
}
