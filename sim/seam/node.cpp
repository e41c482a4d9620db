#include "sim/seam/node.h"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cstring>
#include <functional>
#include <thread>

#include "sim/seam/milliseconds.h"
#include "sim/seam/node_state.h"
#include "sim/seam/run.h"

namespace sim {
namespace {

using std::chrono::milliseconds;
using Clock = std::chrono::steady_clock;

constexpr u32 kLargestRequest = 64;  // the driver stalls longer ones without an event

// Calls `ready` under the state's mutex until it returns true. Returns false when the limit has passed.
template <typename Ready>
bool wait_until(milliseconds limit, const Ready& ready) {
  NodeState& state = node_state();
  const auto end = Clock::now() + limit;
  for (;;) {
    {
      const NodeLock lock(state.mutex);
      release_dead_opens(state);
      if (ready(state)) return true;
    }
    if (Clock::now() >= end) return false;
    std::this_thread::sleep_for(std::chrono::microseconds(500));
  }
}

bool subscribed_to_all(NodeState& state) {
  const NodeOpen* open = connected_open(state);
  return open && std::all_of(std::begin(open->subscribed), std::end(open->subscribed), std::identity());
}

v4l2_event event_of(UvcEventType type) {
  v4l2_event event{};
  event.type = type;
  return event;
}

v4l2_event setup_event(const usb_ctrlrequest& setup) {
  v4l2_event event = event_of(UVC_EVENT_SETUP);
  std::memcpy(event.u.data, &setup, sizeof(setup));
  return event;
}

v4l2_event data_event(std::span<const u8> bytes) {
  UvcRequestData data{};
  data.length = static_cast<i32>(bytes.size());
  std::copy(bytes.begin(), bytes.end(), data.data);
  v4l2_event event = event_of(UVC_EVENT_DATA);
  std::memcpy(event.u.data, &data, sizeof(data));
  return event;
}

bool take_response(NodeState& state, UvcRequestData& response) {
  if (state.response_count == 0) return false;
  response = state.responses[0];
  std::copy(state.responses + 1, state.responses + state.response_count, state.responses);
  --state.response_count;
  return true;
}

// Returns how many bytes a data stage moves: no more than the answer has, the host asked for or
// the record holds.
size_t stage_length(const UvcRequestData& response, u32 wanted) {
  return std::min({static_cast<u32>(response.length), wanted, static_cast<u32>(kUvcRequestDataSize)});
}

// Queues the event, then waits until the service has made the call that `calls` counts.
bool set_interface(UvcEventType type, u32 NodeState::*calls, milliseconds limit) {
  NodeState& state = node_state();
  u32 before = 0;
  {
    const NodeLock lock(state.mutex);
    before = state.*calls;
    queue_event(state, event_of(type));
  }
  return wait_until(limit, [&](NodeState& now) { return now.*calls != before; });
}

bool read_payload(std::vector<u8>& frame, u32 offset, u32 length) {
  frame.resize(length);
  const int fd = open((run_root() + "/dev/video0").c_str(), O_RDONLY | O_CLOEXEC);
  if (fd < 0) return false;
  const ssize_t got = pread(fd, frame.data(), length, offset);
  close(fd);
  return got == static_cast<ssize_t>(length);
}

}  // namespace

bool NodeHost::wait_for_device(milliseconds limit) {
  const bool found = wait_until(limit, [](NodeState& state) { return connected_open(state) != nullptr; });
  if (found) wait_until(milliseconds(100), subscribed_to_all);  // enumeration takes longer than this
  return found;
}

void NodeHost::raise(const v4l2_event& event) {
  NodeState& state = node_state();
  const NodeLock lock(state.mutex);
  if (event.type == UVC_EVENT_SETUP) ++state.requests;
  queue_event(state, event);
}

void NodeHost::connect() { raise(event_of(UVC_EVENT_CONNECT)); }

void NodeHost::disconnect() {
  NodeState& state = node_state();
  const NodeLock lock(state.mutex);
  state.cut_off = state.cut_off || state.streaming;
  state.requests = 0;
  queue_event(state, event_of(UVC_EVENT_DISCONNECT));
}

ControlAnswer NodeHost::control(const usb_ctrlrequest& setup, std::span<const u8> data, milliseconds limit) {
  NodeState& state = node_state();
  const NodeLock pipe(state.control_pipe);
  const u32 wanted = setup.wLength;
  {
    const NodeLock lock(state.mutex);
    release_dead_opens(state);
    if (wanted > kLargestRequest || !connected_open(state)) return {.stalled = true};
    state.requests = 1;
    state.response_count = 0;
    queue_event(state, setup_event(setup));
  }
  const auto begin = Clock::now();
  UvcRequestData response{.length = -1, .data = {}};  // remains if the device vanishes during the wait
  if (!wait_until(limit, [&](NodeState& now) { return take_response(now, response) || !now.requests; })) {
    const NodeLock lock(state.mutex);
    state.requests = 0;  // so the service's late answer is refused
    return {.stalled = true, .timed_out = true, .waited_ms = milliseconds_since(begin)};
  }
  ControlAnswer answer{.stalled = response.length < 0, .waited_ms = milliseconds_since(begin)};
  if (answer.stalled) return answer;
  const size_t length = stage_length(response, wanted);
  if (setup.bRequestType & USB_DIR_IN) {
    answer.data.assign(response.data, response.data + length);
  } else {
    raise(data_event(data.first(std::min(data.size(), length))));
  }
  return answer;
}

bool NodeHost::settle(milliseconds limit) {
  return wait_until(limit, [](const NodeState& state) {
    return std::ranges::none_of(state.opens, [](const NodeOpen& open) {
      return open.process && (open.waiting.load() > 0 || open.serving.load());
    });
  });
}

bool NodeHost::stream_on(milliseconds limit) {
  {
    NodeState& state = node_state();
    const NodeLock lock(state.mutex);
    state.starting = true;
    state.endpoint_off = false;
  }
  return set_interface(UVC_EVENT_STREAMON, &NodeState::stream_on_calls, limit);
}

bool NodeHost::stream_off(milliseconds limit) {
  return set_interface(UVC_EVENT_STREAMOFF, &NodeState::stream_off_calls, limit);
}

bool NodeHost::streaming() const {
  NodeState& state = node_state();
  const NodeLock lock(state.mutex);
  return state.streaming && !state.cut_off;
}

bool NodeHost::take_frame(std::vector<u8>& frame, milliseconds limit) {
  NodeBuffer* buffer = nullptr;
  u64 order = 0;
  u32 offset = 0, length = 0;
  const auto begin_transfer = [&](NodeState& state) {
    if (!state.streaming || state.cut_off || state.endpoint_off) return false;
    buffer = oldest_buffer(state, BufferState::kQueued);
    if (!buffer) return false;
    change_buffer(state, *buffer, BufferState::kInTransfer);
    order = buffer->order;
    offset = buffer_offset(state, static_cast<u32>(buffer - state.buffers));
    length = buffer->bytesused;
    return true;
  };
  if (!wait_until(limit, begin_transfer)) return false;
  const bool whole = read_payload(frame, offset, length);
  NodeState& state = node_state();
  const NodeLock lock(state.mutex);
  if (!whole || buffer->order != order) return false;  // the stream ended in the meantime
  change_buffer(state, *buffer, BufferState::kDone);
  return true;
}

std::optional<UvcRequestData> NodeHost::next_response(milliseconds limit) {
  UvcRequestData response;
  if (!wait_until(limit, [&](NodeState& state) { return take_response(state, response); })) return {};
  return response;
}

bool NodeHost::script(std::string_view fault) { return script_fault(fault); }
std::string NodeHost::call_log() const { return format_calls(); }

std::vector<std::string> NodeHost::protocol_errors() const {
  NodeState& state = node_state();
  const NodeLock lock(state.mutex);
  return {state.crashes, "VIDIOC_STREAMON after a disconnect without VIDIOC_STREAMOFF"};
}

}  // namespace sim
