#include "ipc/msg_util.h"

#include <sys/ipc.h>
#include <sys/msg.h>

#include <cerrno>

#include "common/cancel.h"
#include "common/stream_state.h"
#include "common/wait_limit.h"
#include "platform/sys.h"
#include "support/print.h"

namespace {

constexpr char kPrintFile[] = "msg_util.c";

constexpr useconds_t kFullQueuePause = 5000;

ssize_t receive_cancellable(i32 qid, long type, void* record, std::size_t payload) {
  CancelPoint here;
  return msgrcv(qid, record, payload, type, 0);
}

// Throws away the oldest message of this type, whatever its length.
void discard(i32 qid, long type) {
  long nothing_but_type;
  msgrcv(qid, &nothing_but_type, 0, type, IPC_NOWAIT | MSG_NOERROR);
}

}  // namespace

i32 Msg_Init(key_t key) {
  i32 qid = sys::msgget(key, 0);
  if (qid < 0) {
    qid = sys::msgget(key, IPC_CREAT | 0666);
    PRINT_DEBUG("Creat queue id:%d\n", qid);
  }
  PRINT_DEBUG("queue id:%d\n", qid);
  return qid;
}

i32 Msg_Send(i32 qid, const void* record, std::size_t size) {
  while (msgsnd(qid, record, size - kMsgTypeSize, IPC_NOWAIT) < 0) {
    if (errno != EAGAIN || uvc_stream_state.exit_flag) return -1;
    if (WaitLimit::over()) {
      errno = ETIMEDOUT;
      return -1;
    }
    sys::usleep(kFullQueuePause);
  }
  return 0;
}

ssize_t Msg_Rsv(i32 qid, long type, void* record, std::size_t size) {
  for (;;) {
    const ssize_t received = receive_cancellable(qid, type, record, size - kMsgTypeSize);
    if (received >= 0 || errno != EINTR || uvc_stream_state.exit_flag) return received;
  }
}

ssize_t Msg_Send_Rsv(i32 qid, long type, void* record, std::size_t size) {
  const i32 sent = Msg_Send(qid, record, size);
  return sent < 0 ? sent : Msg_Rsv(qid, type, record, size);
}

bool Msg_Waits(i32 qid, long type) {
  long nothing_but_type;
  return msgrcv(qid, &nothing_but_type, 0, type, IPC_NOWAIT) < 0 && errno == E2BIG;
}

i32 Msg_Kill(i32 qid) {
  msgctl(qid, IPC_RMID, nullptr);
  PRINT_DEBUG("Kill queue id:%d\n", qid);
  return 0;
}

i32 Msg_Drain(i32 qid, long type, void* record, std::size_t size) {
  while (!uvc_stream_state.exit_flag && !WaitLimit::over()) {
    if (msgrcv(qid, record, size - kMsgTypeSize, type, IPC_NOWAIT) >= 0) continue;
    if (errno == ENOMSG) return 0;
    if (errno != E2BIG) return -1;
    discard(qid, type);
  }
  return -1;
}
