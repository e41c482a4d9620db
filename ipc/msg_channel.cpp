#include "ipc/msg_channel.h"

#include <sys/ipc.h>
#include <sys/msg.h>

#include <algorithm>
#include <cerrno>
#include <optional>

#include "common/cancel.h"
#include "common/stream_state.h"
#include "ipc/msg_records.h"
#include "ipc/msg_util.h"
#include "platform/alarm.h"
#include "platform/sys.h"

namespace {

using Clock = WaitLimit::Clock;

// While answers are owed: how often a transaction looks whether its request has been taken, and how soon an
// idle server may have taken and answered it between two looks.
constexpr useconds_t kLookPause = 200;
constexpr std::chrono::milliseconds kPrompt{2};
// How long an answer that may be the request's own is kept in case another one follows.
constexpr std::chrono::milliseconds kKept{500};

void nothing_is_owed(MsgChannel& channel) {
  channel.owed = 0;
  channel.suspected = false;
}

// One of the owed answers has come. If one of them was only suspected, so is the last that remains.
void one_has_come(MsgChannel& channel) {
  if (--channel.owed == 0) return nothing_is_owed(channel);
  if (channel.suspected && channel.owed == 1) channel.owed_since = {};
}

// Finds the queue by its key if the known one is gone. A fresh queue holds nothing that was owed.
bool found_again(MsgChannel& channel) {
  if (errno != EIDRM && errno != EINVAL) return false;
  const i32 queue = sys::msgget(channel.key, 0);
  if (queue < 0 || queue == channel.queue) return false;
  channel.queue = queue;
  nothing_is_owed(channel);
  return true;
}

ssize_t receive(const MsgChannel& channel, void* record, std::size_t payload) {
  CancelPoint here;
  return msgrcv(channel.queue, record, payload, channel.process, 0);
}

// Throws away the oldest answer, whatever its length. Returns false if none has come.
bool throw_away(MsgChannel& channel, int flags) {
  long nothing_but_type;
  CancelPoint here;
  if (msgrcv(channel.queue, &nothing_but_type, 0, channel.process, MSG_NOERROR | flags) < 0) return false;
  one_has_come(channel);
  return true;
}

bool server_has_taken_all(const MsgChannel& channel) { return !Msg_Waits(channel.queue, kServerMsgType); }

// While answers are owed, none of them may get into the record that is about to be sent.
i32 drain(MsgChannel& channel, void* record, std::size_t size) {
  Msg_Settle(channel);
  if (channel.owed > 0 || Msg_Drain(channel.queue, channel.process, record, size) == 0) return 0;
  return found_again(channel) ? Msg_Drain(channel.queue, channel.process, record, size) : -1;
}

void pause_between_looks() {
  CancelPoint here;
  sys::usleep(kLookPause);
}

// The request that was sent last, and where its answer goes.
struct Request {
  void* record;
  std::size_t payload;
  Clock::time_point sent;
  bool server_was_idle;  // so it could take the request at once
};

ssize_t give_up(MsgChannel& channel, const Request& request) {
  ++channel.owed;
  channel.owed_since = request.sent;
  errno = ETIMEDOUT;
  return -1;
}

struct Received {
  ssize_t bytes = 0;
  bool done = false;         // the members above are the result
  bool perhaps_own = false;  // they are the result unless another answer follows
};

// An answer that has not come for so long was most likely lost, or taken for an earlier one.
void only_suspect(MsgChannel& channel) {
  channel.owed = 1;
  channel.suspected = true;
  channel.owed_since = {};
}

bool only_suspected(const MsgChannel& channel) { return channel.owed_since == Clock::time_point{}; }

// Receives until nothing is owed any more. Each round looks at the server's queue before this process's: an
// answer to a former request was there before the last request was taken.
Received receive_owed(MsgChannel& channel, const Request& request) {
  Received last;
  while (channel.owed > 0) {
    const bool taken = server_has_taken_all(channel);
    const ssize_t bytes = msgrcv(channel.queue, request.record, request.payload, channel.process, IPC_NOWAIT);
    if (bytes >= 0) {
      const bool own = request.server_was_idle && Clock::now() - request.sent < kPrompt;
      last = {bytes, own, only_suspected(channel)};
      own ? nothing_is_owed(channel) : one_has_come(channel);
    } else if (errno == E2BIG) {
      throw_away(channel, IPC_NOWAIT);
    } else if (errno != ENOMSG || uvc_stream_state.exit_flag) {
      return {-1, true};
    } else if (taken) {
      nothing_is_owed(channel);
    } else if (WaitLimit::over()) {
      return {give_up(channel, request), true};
    } else {
      pause_between_looks();
    }
  }
  return last;
}

ssize_t receive_own(MsgChannel& channel, const Request& request, const Received& before) {
  const Clock::time_point kept_until = before.perhaps_own ? Clock::now() + kKept : Clock::time_point::max();
  const Clock::time_point end = std::min(WaitLimit::end(), kept_until);
  std::optional<Alarm> alarm;
  if (end != Clock::time_point::max()) alarm.emplace(end - Clock::now());
  for (;;) {
    const ssize_t bytes = receive(channel, request.record, request.payload);
    if (bytes >= 0 || errno != EINTR || uvc_stream_state.exit_flag) return bytes;
    if (before.perhaps_own && Clock::now() >= end) return before.bytes;
    if (WaitLimit::over()) return give_up(channel, request);
  }
}

}  // namespace

void Msg_Settle(MsgChannel& channel) {
  while (channel.owed > 0 && throw_away(channel, IPC_NOWAIT)) continue;
}

void Msg_AwaitOwed(MsgChannel& channel, Clock::time_point end) {
  Msg_Settle(channel);
  if (channel.owed == 0 || Clock::now() >= end) return;
  const Alarm alarm(end - Clock::now());
  while (channel.owed > 0 && Clock::now() < end && !uvc_stream_state.exit_flag) {
    if (!throw_away(channel, 0) && errno != EINTR) return;
  }
}

i32 Msg_Notify(MsgChannel& channel, const void* record, std::size_t size) {
  if (Msg_Send(channel.queue, record, size) == 0) return 0;
  return found_again(channel) ? Msg_Send(channel.queue, record, size) : -1;
}

ssize_t Msg_Transact(MsgChannel& channel, void* record, std::size_t size) {
  if (channel.owed > 0 && Clock::now() >= channel.owed_since + kOwedPatience) only_suspect(channel);
  if (drain(channel, record, size) < 0) return -1;
  const bool server_was_idle = channel.owed > 0 && server_has_taken_all(channel);
  if (Msg_Notify(channel, record, size) < 0) return -1;
  const Request request{record, size - kMsgTypeSize, Clock::now(), server_was_idle};
  const Received received = receive_owed(channel, request);
  return received.done ? received.bytes : receive_own(channel, request, received);
}
