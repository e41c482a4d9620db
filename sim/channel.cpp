#include "sim/channel.h"

#include <sys/ipc.h>
#include <sys/msg.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <utility>

#include "sim/run.h"

namespace sim {

namespace {

constexpr std::size_t kLargestMessage = 8192;  ///< msgmax of an untouched system

int open_queue(i32 key) {
  const int queue = msgget(run_key(key), IPC_CREAT | 0666);
  if (queue >= 0) return queue;
  std::perror("no message queue");
  std::exit(1);
}

}  // namespace

Channel::Channel(i32 key, long type, Handler handler)
    : queue_(open_queue(key)), type_(type), handler_(std::move(handler)), thread_([this] { run(); }) {}

Channel::~Channel() {
  {
    std::lock_guard guard(lock_);
    stopping_ = true;
  }
  wake();
  thread_.join();
}

void Channel::hold(bool held) {
  {
    std::lock_guard guard(lock_);
    held_ = held;
  }
  if (held) wake();
  std::unique_lock guard(lock_);
  changed_.notify_all();
  changed_.wait(guard, [&] { return resting_ == held || ended_; });
}

void Channel::set_delay(std::chrono::milliseconds delay) {
  std::lock_guard guard(lock_);
  delay_ = delay;
}

bool Channel::send(const void* record, std::size_t payload) {
  return msgsnd(queue_, record, payload, IPC_NOWAIT) == 0;
}

void Channel::run() {
  struct {
    long type;
    u8 payload[kLargestMessage];
  } message;
  while (rest_while_held()) {
    const ssize_t size = msgrcv(queue_, &message, sizeof message.payload, type_, MSG_NOERROR);
    if (size < 0 && errno != EINTR) break;  // the queue is gone
    if (size > 0 && wait_delay()) handler_({message.payload, static_cast<std::size_t>(size)});
  }
  std::lock_guard guard(lock_);
  ended_ = true;
  changed_.notify_all();
}

/// False when the channel is to stop.
bool Channel::rest_while_held() {
  std::unique_lock guard(lock_);
  resting_ = held_;
  changed_.notify_all();
  changed_.wait(guard, [&] { return !held_ || stopping_; });
  resting_ = false;
  changed_.notify_all();
  return !stopping_;
}

/// False when the channel stopped meanwhile.
bool Channel::wait_delay() {
  std::unique_lock guard(lock_);
  changed_.wait_for(guard, delay_, [&] { return stopping_; });
  return !stopping_;
}

/// Brings the thread out of its receive with a message without payload. In a full queue the oldest message
/// gives way to it.
void Channel::wake() {
  changed_.notify_all();
  struct {
    long type;
    u8 payload[kLargestMessage];
  } oldest;
  while (msgsnd(queue_, &type_, 0, IPC_NOWAIT) < 0 && errno == EAGAIN) {
    msgrcv(queue_, &oldest, sizeof oldest.payload, 0, IPC_NOWAIT | MSG_NOERROR);
  }
}

}  // namespace sim
