// The state of a run's gadget node, in a file that the service's side (node_calls.cpp) and the USB host's
// side (node.cpp) map, whether they are one process or two. Everything is read and written under `mutex`,
// except an open's atomics. The mutex is robust: a process that is killed leaves the state usable.
#pragma once

#include <linux/usb/ch9.h>
#include <linux/videodev2.h>
#include <pthread.h>
#include <semaphore.h>

#include <array>
#include <atomic>
#include <optional>
#include <span>
#include <string>
#include <string_view>

#include "platform/uvc_events.h"

namespace sim {

constexpr u32 kMaxBuffers = 32;
/// Sparse; holds the memory of the buffers.
constexpr off_t kNodeFileSize = off_t{1} << 28;

/// Calls that a fault can name and that the call log shows.
enum class CallKind : u32 {
  kOpen,
  kClose,
  kQuerycap,
  kSetFormat,
  kGetFormat,
  kRequestBuffers,
  kQueryBuffer,
  kMmap,
  kQueueBuffer,
  kDequeueBuffer,
  kStreamOn,
  kStreamOff,
  kSubscribe,
  kDequeueEvent,
  kPoll,
  kSendResponse,
  kPrivate,
  kUnknown,
  kMemMmap,
  kI2cSlave,
  kI2cRegWidth,
  kI2cDataWidth,
  kI2cRead,
  kI2cWrite,
};

/// One call as the log keeps it. The meaning of the two words depends on the kind.
struct CallRecord {
  CallKind kind;
  u32 words[2];  ///< an event type counts from UVC_EVENT_CONNECT
  i32 error;     ///< 0 or errno
};

/// Calls number `from` to `to` of a kind fail, counting from when the fault was set.
struct CallFault {
  CallKind kind;
  u32 from, to;
  u32 seen;
  i32 error;
};

enum class BufferState : u32 { kDequeued, kQueued, kInTransfer, kDone };

struct NodeBuffer {
  BufferState state;
  u32 bytesused;
  u64 order;  ///< grows with each change of state: within a state, the smallest is the oldest
};

/// A descriptor of the node that a process has open.
struct NodeOpen {
  static constexpr u32 kEventTypes = UVC_EVENT_DATA - UVC_EVENT_CONNECT + 1;
  static constexpr u32 kEventsPerType = 2;  ///< as the driver requests of the kernel's event queues

  pid_t process;  ///< 0 if this entry is free
  i32 descriptor;
  bool subscribed[kEventTypes];
  u32 sequence;
  std::atomic<u32> waiting;   ///< events in the queue; written under the mutex, read without it
  std::atomic<bool> serving;  ///< true from a VIDIOC_DQEVENT that took an event to the next one, or to a poll
  sem_t event;                ///< posted for a new event
  v4l2_event events[kEventTypes * kEventsPerType];  ///< oldest first
};

struct NodeState {
  pthread_mutex_t mutex;
  pthread_mutex_t control_pipe;  ///< the host runs one class request at a time

  v4l2_pix_format format;
  u32 buffer_count;
  u32 buffer_length;  ///< bytes of each buffer
  NodeBuffer buffers[kMaxBuffers];
  u64 order;
  bool streaming;
  bool cut_off;         ///< the host vanished while streaming; true until VIDIOC_STREAMOFF
  bool starting;        ///< SET_INTERFACE 1 waits for VIDIOC_STREAMON
  bool endpoint_off;    ///< a VIDIOC_STREAMOFF came during that wait; true until the next SET_INTERFACE 1
  u32 stream_on_calls;  ///< successful ones
  u32 stream_off_calls;
  u32 crashes;  ///< calls that would have crashed a kernel

  NodeOpen opens[8];
  u32 requests;  ///< SETUPs that wait for the service's answer
  u32 response_count;
  UvcRequestData responses[8];  ///< answers that the host has not taken yet, oldest first

  u32 grant;  ///< the largest number of buffers that is granted
  bool reqbufs_returns_count;
  /// The buffer that answers name instead of the right one.
  std::optional<u32> dequeued_index, queried_index;
  u32 fault_count;
  CallFault faults[16];
  u64 call_count;
  std::array<CallRecord, 4096> calls;  ///< a ring
};

/// Holds one of the state's mutexes; takes over one whose holder died.
class NodeLock {
 public:
  explicit NodeLock(pthread_mutex_t& mutex);
  ~NodeLock() { pthread_mutex_unlock(&mutex_); }
  NodeLock(const NodeLock&) = delete;

 private:
  pthread_mutex_t& mutex_;
};

/// Create the current run's state, and unmap it at the end of the run.
void create_node_state();
void release_node_state();
/// Returns the current run's state. Any thread may call it.
NodeState& node_state();

// To be called with the mutex held:

/// Appends to the call log.
void record_call(NodeState& state, const CallRecord& call);
/// Counts a call of `kind`. Returns the errno with which it is to fail, or 0.
i32 next_fault(NodeState& state, CallKind kind);
/// Queues an event to every open that has subscribed to its type. An event without a time gets the current
/// one, of CLOCK_MONOTONIC, as in the kernel.
void queue_event(NodeState& state, const v4l2_event& event);
/// Returns the open that subscribed to SETUP, which puts the device on the bus, or null.
NodeOpen* connected_open(NodeState& state);
/// Does what the driver does when the last reference to a descriptor goes.
void release_open(NodeState& state, NodeOpen& open);
/// Releases the opens whose descriptor is gone without sys::close (a killed process, dup2).
void release_dead_opens(NodeState& state);
/// Gives every buffer back to the service. What was queued is lost.
void stop_stream(NodeState& state);
/// Returns the oldest buffer in a state, or null.
NodeBuffer* oldest_buffer(NodeState& state, BufferState in);
void change_buffer(NodeState& state, NodeBuffer& buffer, BufferState to);
/// Returns the driver's layout of a YUYV picture.
v4l2_pix_format yuyv_format(u32 width, u32 height);
/// Returns where a buffer's memory starts in the node's file.
u32 buffer_offset(const NodeState& state, u32 index);

// These functions take the mutex themselves:

/// Like next_fault, for a device other than the node.
i32 fault_of(CallKind kind);
/// See NodeHost::script.
bool script_fault(std::string_view text);
std::string format_calls();

}  // namespace sim
