#include "sim/parties/channel.h"

#include <sys/ipc.h>
#include <sys/msg.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <utility>

#include "sim/seam/run.h"

namespace sim {

namespace {

constexpr std::size_t kLargestMessage = 8192;  // the default msgmax
constexpr std::size_t kFillerSize = 1;         // shorter than any record

int open_queue(i32 key) {
  const int queue = msgget(run_key(key), IPC_CREAT | 0666);
  if (queue >= 0) return queue;
  std::perror("message queue");
  std::exit(1);
}

}  // namespace

Channel::Channel(i32 key, long type, Handler handler)
    : key_(key), queue_(open_queue(key)), type_(type), handler_(std::move(handler)), thread_([this] {
        run();
      }) {}

Channel::~Channel() { end_thread(); }

void Channel::end_thread() {
  {
    std::lock_guard guard(lock_);
    stopping_ = true;
  }
  wake();
  if (thread_.joinable()) thread_.join();
}

void Channel::leave() {
  end_thread();
  msgctl(queue_, IPC_RMID, nullptr);
}

void Channel::come() {
  if (thread_.joinable()) return;
  queue_ = open_queue(key_);
  stopping_ = ended_ = false;
  thread_ = std::thread([this] { run(); });
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

void Channel::set_delay(std::chrono::milliseconds delay) { delay_ms_ = static_cast<int>(delay.count()); }

void Channel::fill() {
  const struct {
    long type;
    u8 payload[kFillerSize];
  } filler{type_, {}};
  while (send(&filler, kFillerSize)) continue;
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
    const ssize_t size = msgrcv(queue_, &message, sizeof(message.payload), type_, MSG_NOERROR);
    if (size < 0 && errno != EINTR) break;  // the queue is gone
    if (size > static_cast<ssize_t>(kFillerSize) && pause(std::chrono::milliseconds(delay_ms_)))
      handler_({message.payload, static_cast<std::size_t>(size)});
  }
  std::lock_guard guard(lock_);
  ended_ = true;
  changed_.notify_all();
}

// Returns false if the channel has to stop.
bool Channel::rest_while_held() {
  std::unique_lock guard(lock_);
  resting_ = held_;
  changed_.notify_all();
  changed_.wait(guard, [&] { return !held_ || stopping_; });
  resting_ = false;
  changed_.notify_all();
  return !stopping_;
}

bool Channel::pause(std::chrono::milliseconds time) {
  std::unique_lock guard(lock_);
  changed_.wait_for(guard, time, [&] { return stopping_; });
  return !stopping_;
}

// Wakes the thread from its receive by a message without payload. If the queue is full, the oldest message
// makes room for it.
void Channel::wake() {
  changed_.notify_all();
  struct {
    long type;
    u8 payload[kLargestMessage];
  } oldest;
  while (msgsnd(queue_, &type_, 0, IPC_NOWAIT) < 0 && errno == EAGAIN) {
    msgrcv(queue_, &oldest, sizeof(oldest.payload), 0, IPC_NOWAIT | MSG_NOERROR);
  }
}

}  // namespace sim
