// The streaming loop feeds one stream at a time from the main thread. The control thread starts and ends
// streams at any moment, as the host asks, and announces that by the words of the stream state alone. So the
// loop remembers which stream is its own, and looks at the words before every buffer and again, under
// stream_end_lock, before it queues one. Two things are guaranteed: a frame of one stream never enters the
// next, and every buffer goes back to the driver, filled with a frame or, where there is none, with an empty
// payload of two bytes.
//
// A host that takes no frames leaves the driver without a finished buffer: each failed dequeue costs a pause
// of 20 ms. An encoder that is late or gone costs one empty payload for every 2.5 s of waiting
// (vencbuf_get.cpp); only the media library's wait for a picture has no limit. A stream that is over, even
// when the next one has begun, is ended first: its buffers are mapped and queued anew, and the system server
// is informed. A system server whose queue is full stops the loop until there is room or the service ends.
#include "uvc/uvc_gadget_loop.h"

#include <utility>

#include "platform/sys.h"
#include "support/print.h"
#include "uvc/uvc_class_encoder.h"
#include "uvc/uvc_gadget_device.h"
#include "uvc/uvc_gadget_fill.h"
#include "uvc/uvc_gadget_signals.h"
#include "uvc/uvc_gadget_stream.h"
#include "uvc/uvc_state.h"
#include "uvc/uvc_waiting.h"
#include "vencbuf/vencbuf_get.h"

constexpr char kPrintFile[] = "uvc_gadget.c";

namespace {

constexpr useconds_t kDequeuePause = 20'000;
constexpr u32 kDequeueFailures = 100;
// H.264 and H.265 run with key frames only until this frame of a stream.
constexpr u32 kIntraFrames = 4;

bool has_key_frames() { return cur_format == kFormatH264 || cur_format == kFormatH265; }

void start_stream(StreamLoop& loop) {
  loop.stopped = false;
  adopt_stream();
  if (has_key_frames()) {
    loop.saved_gop = get_key_frame_interval();
    set_key_frame_interval(1);
    loop.frames_since_start = 0;
  } else {
    notify_stream_start();  // Deliberate: these formats are announced twice
  }
  notify_stream_start();
  vencbuf_clear_all(stream_goes_on);
}

void stop_stream(StreamLoop& loop) {
  last_format = -1;
  notify_stream_stop();
  uvc_device_rearm();
  loop.need_dequeue = false;
  PRINT_INFO("stop uvc stream .............\n");
  loop.stopped = true;
}

void count_frame(StreamLoop& loop) {
  if (!has_key_frames() || loop.frames_since_start >= kIntraFrames) return;
  if (++loop.frames_since_start == kIntraFrames) set_key_frame_interval(loop.saved_gop);
}

// Returns the result of VIDIOC_QBUF, or 0 when the stream is over: its end queues every buffer itself.
i32 queue(v4l2_buffer& buffer) {
  const std::lock_guard lock(stream_end_lock);
  return stream_goes_on() ? sys::ioctl(uvc_video_fd, VIDIOC_QBUF, &buffer) : 0;
}

// Offers this turn's buffer, in case the driver no longer has it.
// Deliberate: a run of failures is called a queue timeout.
void on_dequeue_failure(StreamLoop& loop, u32 index, u32 payload) {
  v4l2_buffer buffer = uvc_buffer_record(index);
  buffer.bytesused = payload;
  queue(buffer);
  ++loop.dq_fail_count;
  sys::usleep(kDequeuePause);
  if (loop.dq_fail_count <= kDequeueFailures) return;
  PRINT_INFO("VIDIOC_QBUF Timeout!\n");
  loop.dq_fail_count = 0;
}

bool is_mapped(u32 index) { return index < uvc_buffer_count && uvc_buffers[index].start != nullptr; }

// Maps a buffer that could not be mapped when the last stream ended, and queues it empty.
void rearm_buffer(u32 index) {
  if (uvc_device_rearm_buffer(index) < 0) sys::usleep(kDequeuePause);
}

// Takes a buffer from the driver. Returns false when there is none, or when the driver names one that has no
// mapping or is outside the table. Deliberate: 0 bytes are offered in the first case.
bool dequeue(StreamLoop& loop, v4l2_buffer& buffer) {
  const u32 index = buffer.index;
  const bool given = sys::ioctl(uvc_video_fd, VIDIOC_DQBUF, &buffer) >= 0;
  if (given && is_mapped(buffer.index)) return true;
  on_dequeue_failure(loop, index, given ? kEmptyPayload : 0);
  return false;
}

void feed_buffer(StreamLoop& loop, u32 index) {
  serve_signals();
  if (!is_mapped(index)) return rearm_buffer(index);
  v4l2_buffer buffer = uvc_buffer_record(index);
  if (loop.need_dequeue && !dequeue(loop, buffer)) return;
  count_frame(loop);
  uvc_video_fill_buffer(0, &buffer);
  loop.dq_fail_count = 0;
  const i32 result = queue(buffer);
  if (result < 0) PRINT_INFO("VIDIOC_QBUF failed (%d)\n", result);
}

void feed_all_buffers(StreamLoop& loop) {
  config_changed = 0;
  for (u32 i = 0; i < uvc_buffer_count && stream_goes_on(); ++i) feed_buffer(loop, i);
  loop.need_dequeue = true;
}

void idle(StreamLoop& loop) {
  if (uvc_stream_state.exit_flag) return;  // the shutdown announces the end to the server
  if (!loop.stopped) stop_stream(loop);
  rest();
}

}  // namespace

void stream_turn(StreamLoop& loop) {
  serve_signals();
  if (std::exchange(loop.first_turn, false)) {
    adopt_stream();
    vencbuf_clear_all(stream_goes_on);
  }
  if (loop.stopped && uvc_stream_state.streaming()) start_stream(loop);
  if (!loop.stopped && stream_goes_on()) {
    feed_all_buffers(loop);
  } else {
    idle(loop);
  }
}
