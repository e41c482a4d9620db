// The driver's side of the gadget node: what the kernel would do at each of the service's calls. A call holds
// the node's mutex from the look for a scripted fault to its line in the call log, so the log is in the order
// in which things happened, whichever process caused them. Only the poll that finds no event does without,
// since the service polls at full speed. No call waits: the service opens the node non-blocking, and what is
// not there yet is answered with EAGAIN or ENOENT.
//
// The other side is the USB host (node.cpp), which raises events and takes frames in the same state. A host
// that is late leaves buffers queued and events unsent; one that vanishes while streaming makes the buffer
// calls fail with ENODEV until VIDIOC_STREAMOFF. A service that was killed leaves its opens behind, and
// perhaps the mutex locked: whoever locks it next takes it over, and the opens are released at the next
// open and while the host waits.
#include "sim/seam/node_calls.h"

#include <sys/mman.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <ctime>

#include "sim/seam/node_state.h"
#include "sim/seam/wait_on.h"

namespace sim {
namespace {

constexpr u32 kOutput = V4L2_BUF_TYPE_VIDEO_OUTPUT;

// What one call works on. A handler returns 0 or an errno and sets the words for the call log.
struct Call {
  NodeState& state;
  NodeOpen& open;
  u32 words[2] = {};
};

template <typename Text>
void copy_text(Text& to, const char* text) {
  std::snprintf(reinterpret_cast<char*>(to), sizeof(to), "%s", text);
}

i32 query_capabilities(Call&, v4l2_capability& capability) {
  capability = {};
  copy_text(capability.driver, "g_uvc");
  copy_text(capability.card, "camera");
  copy_text(capability.bus_info, "gadget");
  capability.device_caps = V4L2_CAP_VIDEO_OUTPUT | V4L2_CAP_STREAMING;
  capability.capabilities = capability.device_caps | V4L2_CAP_DEVICE_CAPS;
  return 0;
}

i32 set_format(Call& call, v4l2_format& format) {
  v4l2_pix_format& wanted = format.fmt.pix;
  call.words[0] = wanted.width;
  call.words[1] = wanted.height;
  if (format.type != kOutput || wanted.pixelformat != V4L2_PIX_FMT_YUYV) return EINVAL;
  if (wanted.width - 1 >= 1920 || wanted.height - 1 >= 1080) return EINVAL;
  call.state.format = wanted = yuyv_format(wanted.width, wanted.height);
  return 0;
}

i32 get_format(Call& call, v4l2_format& format) {
  if (format.type != kOutput) return EINVAL;
  format.fmt.pix = call.state.format;
  return 0;
}

i32 request_buffers(Call& call, v4l2_requestbuffers& request) {
  NodeState& state = call.state;
  call.words[0] = request.count;
  if (request.type != kOutput || request.memory != V4L2_MEMORY_MMAP) return EINVAL;
  if (state.streaming) return EBUSY;
  stop_stream(state);
  request.count = state.buffer_count = std::min(request.count, state.grant);
  state.buffer_length = state.format.sizeimage;
  call.words[1] = request.count;
  return 0;
}

// Returns the buffer that a request names, or null if there is none.
NodeBuffer* named_buffer(Call& call, const v4l2_buffer& request) {
  call.words[0] = request.index;
  const bool valid = request.type == kOutput && request.memory == V4L2_MEMORY_MMAP &&
                     request.index < call.state.buffer_count;
  return valid ? &call.state.buffers[request.index] : nullptr;
}

u32 flags_of(const NodeBuffer& buffer) {
  switch (buffer.state) {
    case BufferState::kDequeued:
      return 0;
    case BufferState::kQueued:
    case BufferState::kInTransfer:
      return V4L2_BUF_FLAG_QUEUED;
    case BufferState::kDone:
      return V4L2_BUF_FLAG_DONE;
  }
  return 0;
}

// Fills in what the driver reports about a buffer.
void describe(const NodeState& state, const NodeBuffer& buffer, v4l2_buffer& result) {
  result.index = static_cast<u32>(&buffer - state.buffers);
  result.bytesused = buffer.bytesused;
  result.length = state.buffer_length;
  result.m.offset = buffer_offset(state, result.index);
  result.flags = flags_of(buffer) | V4L2_BUF_FLAG_TIMESTAMP_MONOTONIC;
  result.field = V4L2_FIELD_NONE;
}

i32 query_buffer(Call& call, v4l2_buffer& request) {
  const NodeBuffer* buffer = named_buffer(call, request);
  if (!buffer) return EINVAL;
  describe(call.state, *buffer, request);
  request.index = call.state.queried_index.value_or(request.index);
  return 0;
}

i32 queue_buffer(Call& call, v4l2_buffer& request) {
  NodeBuffer* buffer = named_buffer(call, request);
  call.words[1] = request.bytesused;
  if (!buffer || buffer->state != BufferState::kDequeued) return EINVAL;
  const u32 length = call.state.buffer_length;
  if (request.bytesused > length) return EINVAL;
  if (call.state.cut_off) return ENODEV;
  buffer->bytesused = request.bytesused ? request.bytesused : length;
  change_buffer(call.state, *buffer, BufferState::kQueued);
  describe(call.state, *buffer, request);
  return 0;
}

i32 dequeue_buffer(Call& call, v4l2_buffer& request) {
  NodeState& state = call.state;
  call.words[0] = request.index;
  if (request.type != kOutput || request.memory != V4L2_MEMORY_MMAP) return EINVAL;
  if (state.cut_off) return ENODEV;
  if (!state.streaming) return EINVAL;
  NodeBuffer* buffer = oldest_buffer(state, BufferState::kDone);
  if (!buffer) return EAGAIN;
  change_buffer(state, *buffer, BufferState::kDequeued);
  describe(state, *buffer, request);
  call.words[0] = request.index = state.dequeued_index.value_or(request.index);
  call.words[1] = request.bytesused;
  return 0;
}

i32 stream_on(Call& call, const i32& type) {
  NodeState& state = call.state;
  if (type != static_cast<i32>(kOutput) || state.buffer_count == 0) return EINVAL;
  if (state.cut_off) {
    ++state.crashes;  // here the kernel's request pump would hit a BUG
    return EINVAL;
  }
  state.streaming = true;
  state.starting = false;
  ++state.stream_on_calls;
  return 0;
}

i32 stream_off(Call& call, const i32& type) {
  if (type != static_cast<i32>(kOutput)) return EINVAL;
  stop_stream(call.state);
  call.state.endpoint_off = call.state.endpoint_off || call.state.starting;
  ++call.state.stream_off_calls;
  return 0;
}

i32 subscribe(Call& call, const v4l2_event_subscription& subscription) {
  const u32 type = subscription.type;
  call.words[0] = type - UVC_EVENT_CONNECT;
  if (call.words[0] >= NodeOpen::kEventTypes) return EINVAL;
  if (type == UVC_EVENT_SETUP && connected_open(call.state)) return EBUSY;
  call.open.subscribed[call.words[0]] = true;
  return 0;
}

i32 dequeue_event(Call& call, v4l2_event& event) {
  NodeOpen& open = call.open;
  open.serving = open.waiting > 0;
  if (!open.serving) return ENOENT;  // another thread of the service took it
  const u32 left = open.waiting - 1;
  event = open.events[0];
  std::move(open.events + 1, open.events + 1 + left, open.events);
  open.waiting = left;
  event.pending = left;
  call.words[0] = event.type - UVC_EVENT_CONNECT;
  return 0;
}

i32 send_response(Call& call, const UvcRequestData& response) {
  NodeState& state = call.state;
  call.words[0] = static_cast<u32>(response.length);
  if (state.requests == 0 || state.response_count == std::size(state.responses)) return EINVAL;
  --state.requests;
  state.responses[state.response_count++] = response;
  return 0;
}

i32 reject(Call&, u32&) { return ENOTTY; }

// One row per request: its name in the log and its handler.
struct Request {
  unsigned long number;
  CallKind kind;
  i32 (*handle)(Call&, void*);
};

template <auto handler, typename Argument>
i32 typed(Call& call, void* argument) {
  return handler(call, *static_cast<Argument*>(argument));
}

constexpr Request kRequests[] = {
    {VIDIOC_QUERYCAP, CallKind::kQuerycap, typed<query_capabilities, v4l2_capability>},
    {VIDIOC_S_FMT, CallKind::kSetFormat, typed<set_format, v4l2_format>},
    {VIDIOC_G_FMT, CallKind::kGetFormat, typed<get_format, v4l2_format>},
    {VIDIOC_REQBUFS, CallKind::kRequestBuffers, typed<request_buffers, v4l2_requestbuffers>},
    {VIDIOC_QUERYBUF, CallKind::kQueryBuffer, typed<query_buffer, v4l2_buffer>},
    {VIDIOC_QBUF, CallKind::kQueueBuffer, typed<queue_buffer, v4l2_buffer>},
    {VIDIOC_DQBUF, CallKind::kDequeueBuffer, typed<dequeue_buffer, v4l2_buffer>},
    {VIDIOC_STREAMON, CallKind::kStreamOn, typed<stream_on, const i32>},
    {VIDIOC_STREAMOFF, CallKind::kStreamOff, typed<stream_off, const i32>},
    {VIDIOC_SUBSCRIBE_EVENT, CallKind::kSubscribe, typed<subscribe, const v4l2_event_subscription>},
    {VIDIOC_DQEVENT, CallKind::kDequeueEvent, typed<dequeue_event, v4l2_event>},
    {UVCIOC_SEND_RESPONSE, CallKind::kSendResponse, typed<send_response, const UvcRequestData>},
    {kUvcPrivateStart, CallKind::kPrivate, typed<reject, u32>},
};

// The driver does not know the request and does not look at any argument.
i32 reject_unknown(Call&, void*) { return ENOTTY; }

Request find_request(unsigned long number) {
  for (const Request& request : kRequests)
    if (request.number == number) return request;
  return {number, CallKind::kUnknown, reject_unknown};
}

int result_of(i32 error) {
  if (error == 0) return 0;
  errno = error;
  return -1;
}

NodeOpen* free_open(NodeState& state) {
  for (NodeOpen& open : state.opens)
    if (open.process == 0) return &open;
  return nullptr;
}

}  // namespace

int node_open(int fd) {
  NodeState& state = node_state();
  const NodeLock lock(state.mutex);
  release_dead_opens(state);
  for (NodeOpen& former : state.opens)  // its number was reused for another file and is free again
    if (former.process == getpid() && former.descriptor == fd) release_open(state, former);
  NodeOpen* open = free_open(state);
  i32 error = next_fault(state, CallKind::kOpen);
  if (!error && !open) error = EMFILE;
  record_call(state, {CallKind::kOpen, {}, error});
  if (error) return result_of(error);
  open->process = getpid();
  open->descriptor = fd;
  open->sequence = 0;
  open->serving = false;
  std::fill(std::begin(open->subscribed), std::end(open->subscribed), false);
  return static_cast<int>(open - state.opens);
}

void node_close(int number) {
  NodeState& state = node_state();
  const NodeLock lock(state.mutex);
  NodeOpen& open = state.opens[number];
  if (open.process == getpid()) release_open(state, open);
  record_call(state, {CallKind::kClose, {}, 0});
}

int node_ioctl(int number, unsigned long request, void* argument) {
  NodeState& state = node_state();
  const NodeLock lock(state.mutex);
  const Request row = find_request(request);
  Call call{state, state.opens[number]};
  i32 error = call.open.process == getpid() ? next_fault(state, row.kind) : EBADF;
  if (!error) error = row.handle(call, argument);
  record_call(state, {row.kind, {call.words[0], call.words[1]}, error});
  const bool counts = row.kind == CallKind::kRequestBuffers && state.reqbufs_returns_count && !error;
  return counts ? static_cast<int>(state.buffer_count) : result_of(error);
}

int node_mmap(int, size_t length, int protection, int flags, off_t offset) {
  NodeState& state = node_state();
  const NodeLock lock(state.mutex);
  const auto start = static_cast<u32>(offset);
  bool valid = false;
  for (u32 i = 0; i < state.buffer_count; ++i) valid |= buffer_offset(state, i) == start;
  valid = valid && length <= buffer_offset(state, 1) && protection & PROT_WRITE && flags & MAP_SHARED;
  i32 error = next_fault(state, CallKind::kMmap);
  if (!error && !valid) error = EINVAL;
  record_call(state, {CallKind::kMmap, {start, static_cast<u32>(length)}, error});
  return result_of(error);
}

int node_poll(int number, pollfd& file, int timeout_ms) {
  NodeState& state = node_state();
  NodeOpen& open = state.opens[number];
  open.serving = false;
  {
    const NodeLock lock(state.mutex);
    if (next_fault(state, CallKind::kPoll)) return file.revents = POLLERR, 1;
  }
  const i64 deadline = monotonic_ns() + timeout_ms * kMillisecond;
  for (i64 now; open.waiting == 0 && (now = monotonic_ns()) < deadline;)
    wait_for_post(open.event, deadline - now);
  file.revents = open.waiting > 0 ? POLLPRI : 0;
  return open.waiting > 0;
}

bool node_has_no_event(int number) {
  NodeOpen& open = node_state().opens[number];
  if (open.waiting.load() > 0) return false;
  if (open.serving.load(std::memory_order_relaxed)) open.serving = false;
  return true;
}

}  // namespace sim
