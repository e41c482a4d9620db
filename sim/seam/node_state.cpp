#include "sim/seam/node_state.h"

#include <fcntl.h>
#include <sys/mman.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <iterator>
#include <mutex>
#include <new>
#include <string>

#include "sim/seam/run.h"
#include "sim/seam/wait_on.h"

namespace sim {
namespace {

std::mutex map_lock;
std::atomic<NodeState*> mapped{nullptr};

NodeState* map_state(int flags) {
  const int fd = open((run_root() + "/node").c_str(), O_RDWR | O_CLOEXEC | flags, 0600);
  void* memory = MAP_FAILED;
  if (fd >= 0 && ftruncate(fd, sizeof(NodeState)) == 0)
    memory = mmap(nullptr, sizeof(NodeState), PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0);
  if (memory == MAP_FAILED) {
    std::perror("camera simulator: the gadget node's state");
    std::exit(2);
  }
  close(fd);
  return static_cast<NodeState*>(memory);
}

void make_mutex(pthread_mutex_t& mutex) {
  pthread_mutexattr_t attributes;
  pthread_mutexattr_init(&attributes);
  pthread_mutexattr_setpshared(&attributes, PTHREAD_PROCESS_SHARED);
  pthread_mutexattr_setrobust(&attributes, PTHREAD_MUTEX_ROBUST);
  pthread_mutex_init(&mutex, &attributes);
  pthread_mutexattr_destroy(&attributes);
}

bool is_alive(const NodeOpen& open) {
  const std::string link = "/proc/" + std::to_string(open.process) + "/fd/" + std::to_string(open.descriptor);
  char target[256];
  const ssize_t length = readlink(link.c_str(), target, sizeof(target));
  // The file may have been removed while open; its name then ends in a mark.
  return length > 0 &&
         std::string_view(target, static_cast<size_t>(length)).starts_with(run_root() + "/dev/video0");
}

void add_event(NodeOpen& open, v4l2_event event) {
  v4l2_event* end = open.events + open.waiting.load();
  const auto same_type = [&](const v4l2_event& other) { return other.type == event.type; };
  event.sequence = open.sequence++;
  if (std::count_if(open.events, end, same_type) == NodeOpen::kEventsPerType) {
    v4l2_event* oldest = std::find_if(open.events, end, same_type);
    end = std::move(oldest + 1, end, oldest);
  }
  *end++ = event;
  open.waiting = static_cast<u32>(end - open.events);
  wake(open.event);
}

}  // namespace

NodeLock::NodeLock(pthread_mutex_t& mutex) : mutex_(mutex) {
  if (pthread_mutex_lock(&mutex_) == EOWNERDEAD) pthread_mutex_consistent(&mutex_);
}

void create_node_state() {
  auto* state = new (map_state(O_CREAT | O_EXCL)) NodeState{};
  make_mutex(state->mutex);
  make_mutex(state->control_pipe);
  for (NodeOpen& open : state->opens) sem_init(&open.event, 1, 0);
  state->format = yuyv_format(320, 240);
  state->grant = kMaxBuffers;
  mapped = state;
}

void release_node_state() {
  if (NodeState* state = mapped.exchange(nullptr)) munmap(state, sizeof(*state));
}

NodeState& node_state() {
  if (NodeState* state = mapped) return *state;
  const std::lock_guard guard(map_lock);
  if (!mapped) mapped = map_state(0);
  return *mapped;
}

void queue_event(NodeState& state, const v4l2_event& event) {
  if (event.type < UVC_EVENT_CONNECT || event.type > UVC_EVENT_DATA) return;
  v4l2_event stamped = event;
  if (event.timestamp.tv_sec == 0 && event.timestamp.tv_nsec == 0)
    clock_gettime(CLOCK_MONOTONIC, &stamped.timestamp);
  for (NodeOpen& open : state.opens)
    if (open.process && open.subscribed[event.type - UVC_EVENT_CONNECT]) add_event(open, stamped);
}

NodeOpen* connected_open(NodeState& state) {
  for (NodeOpen& open : state.opens)
    if (open.process && open.subscribed[UVC_EVENT_SETUP - UVC_EVENT_CONNECT]) return &open;
  return nullptr;
}

void release_open(NodeState& state, NodeOpen& open) {
  const bool was_connected = connected_open(state) == &open;
  open.process = 0;
  open.waiting = 0;
  const bool last = std::none_of(std::begin(state.opens), std::end(state.opens),
                                 [](const NodeOpen& other) { return other.process != 0; });
  if (!was_connected && !last) return;
  stop_stream(state);
  state.buffer_count = 0;
  state.requests = 0;
}

void release_dead_opens(NodeState& state) {
  for (NodeOpen& open : state.opens)
    if (open.process && !is_alive(open)) release_open(state, open);
}

void stop_stream(NodeState& state) {
  for (NodeBuffer& buffer : state.buffers) change_buffer(state, buffer, BufferState::kDequeued);
  state.streaming = false;
  state.cut_off = false;
}

NodeBuffer* oldest_buffer(NodeState& state, BufferState in) {
  NodeBuffer* oldest = nullptr;
  for (NodeBuffer& buffer : std::span(state.buffers, state.buffer_count))
    if (buffer.state == in && (!oldest || buffer.order < oldest->order)) oldest = &buffer;
  return oldest;
}

void change_buffer(NodeState& state, NodeBuffer& buffer, BufferState to) {
  buffer.state = to;
  buffer.order = ++state.order;
}

v4l2_pix_format yuyv_format(u32 width, u32 height) {
  v4l2_pix_format format{};
  format.width = width;
  format.height = height;
  format.pixelformat = V4L2_PIX_FMT_YUYV;
  format.field = V4L2_FIELD_NONE;
  format.bytesperline = width * 2;
  format.sizeimage = width * height * 2;
  return format;
}

u32 buffer_offset(const NodeState& state, u32 index) {
  constexpr u32 kPage = 4096;
  return index * ((state.buffer_length + kPage - 1) / kPage * kPage);
}

}  // namespace sim
