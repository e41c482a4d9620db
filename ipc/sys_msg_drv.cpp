// A transaction with the system server: the body goes into this process's slot of the shared segment, a short
// record announces it, and the server's record says how much of the answer is in the same slot. There is one
// slot and one server, so transactions are taken one at a time, under the driver's lock, and from the
// announcement to the answer the slot is the server's. Records carry no tag; msg_channel.h keeps account of
// the answers that are still owed to earlier requests.
//
// A server that is late makes the caller give up at its WaitLimit; the answer is then owed. The next caller
// waits for it, as long as its own limit allows, before it touches the slot, so that a late answer does not
// land in a newer body. A server that has removed its queue makes the transaction fail at once, one that only
// went silent makes the caller wait until its limit. A server that was restarted is found again by the keys
// of its queue and segment.
#include "ipc/sys_msg_drv.h"

#include <unistd.h>

#include <algorithm>
#include <cerrno>

#include "common/wait_limit.h"
#include "ipc/msg_channel.h"
#include "ipc/msg_records.h"
#include "ipc/msg_util.h"
#include "ipc/sem_util.h"
#include "ipc/share_mem.h"
#include "platform/output.h"
#include "support/print.h"

namespace {

constexpr char kPrintFile[] = "sys_msg_drv.c";

constexpr i32 kClosedProcess = 1;
constexpr u32 kLastCommand = 63;
constexpr std::size_t kRecordSize = kMsgTypeSize + kSysMsgPayload;

using Clock = WaitLimit::Clock;

// The slot belongs to the server until it has answered. A new body waits for an answer that is owed, but
// keeps this much of its own time for its own answer.
constexpr std::chrono::milliseconds kOwnShare{1500};

struct Driver {
  MsgChannel channel{.key = kSysMsgKey, .process = kClosedProcess};
  SemHandle lock = nullptr;
};
Driver driver;

// Deliberate: these messages go to standard error only, whatever the print level.
i32 fail_init(const char* message) {
  driver.channel.process = kClosedProcess;
  output(STDERR_FILENO, message);
  return -1;
}

// Says whether the slot may be filled. A caller that comes with less than its own share of time could only
// spoil a body that the server has yet to read.
bool await_slot() {
  MsgChannel& channel = driver.channel;
  const Clock::time_point own = WaitLimit::end();
  const Clock::time_point end = own == Clock::time_point::max() ? own : own - kOwnShare;
  const Clock::time_point patience = channel.owed_since + kOwedPatience;
  const bool too_late = Clock::now() >= end;
  Msg_AwaitOwed(channel, std::min(patience, end));
  return !too_late || channel.owed == 0 || Clock::now() >= patience;
}

// Copies the answer's bytes out of the slot, as far as the caller has room. Returns 0, or -1
// without the slot.
i32 take_reply(i32 offset, void* buffer, i32 length, i32& reply_length) {
  if (length > reply_length) {
    PRINT_DEBUG("%s:Recive buf too small!\n", "TransmitMsg2Sys");
    return ShareMemRead(offset, buffer, reply_length);
  }
  if (ShareMemRead(offset, buffer, length) < 0) return -1;
  reply_length = length;
  return 0;
}

i32 give_up(i32 cmd) {
  PRINT_ERROR("TransmitMsg2Sys: no answer to command %d in time\n", cmd);
  return -1;
}

}  // namespace

i32 InitSysMsgDrv(i32 process_id) {
  if (process_id < 1 || process_id > 24) return fail_init("Error:Invalid Parameter\n");
  driver.channel.process = process_id;
  if (ShareMemInit(kSysMsgKey) < 0) return fail_init("Error:Share Memory init fail\n");
  if (!driver.lock) driver.lock = MakeSem();
  if (!driver.lock) return fail_init("Error:No more memory to create semaphore\n");
  driver.channel.queue = Msg_Init(kSysMsgKey);
  if (driver.channel.queue >= 0) return 0;
  DestroySem(driver.lock);
  driver.lock = nullptr;
  return fail_init("Error:Msg_Init fail\n");
}

void CleanupSysMsgDrv() {
  driver.channel.process = kClosedProcess;
  DestroySem(driver.lock);
  driver.lock = nullptr;
}

i32 SendMsg2Sys(i32 cmd, void* buffer, i32 length, i32* reply_length) {
  if (!buffer || static_cast<u32>(cmd) > kLastCommand) return -1;
  return TransmitMsg2Sys(buffer, length, reply_length, cmd);
}

i32 TransmitMsg2Sys(void* buffer, i32 length, i32* reply_length, i32 cmd) {
  SemGuard guard(driver.lock);
  if (guard.given_up()) return -1;
  if (!await_slot() || WaitLimit::over()) return give_up(cmd);
  const i32 process = driver.channel.process;
  const i32 offset = sys_slot_offset(process);
  SysMsgBuf record{kServerMsgType, cmd, process, length, offset};
  if (ShareMemWrite(offset, buffer, length) < 0) return -1;
  if (Msg_Transact(driver.channel, &record, kRecordSize) < 0) return errno == ETIMEDOUT ? give_up(cmd) : -1;
  if (!reply_length || record.length < 0) return record.length;
  return take_reply(offset, buffer, record.length, *reply_length) < 0 ? -1 : record.length;
}
