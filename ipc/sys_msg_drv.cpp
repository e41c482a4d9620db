#include "ipc/sys_msg_drv.h"

#include <sys/msg.h>
#include <unistd.h>

#include <chrono>

#include "common/word.h"
#include "ipc/msg_records.h"
#include "ipc/msg_util.h"
#include "ipc/sem_util.h"
#include "ipc/share_mem.h"
#include "platform/output.h"
#include "support/print.h"

static constexpr char kPrintFile[] = "sys_msg_drv.c";

namespace {

constexpr i32 kClosedProcess = 1;
constexpr u32 kLastCommand = 63;
constexpr std::size_t kRecordSize = kMsgTypeSize + kSysMsgPayload;

using Clock = std::chrono::steady_clock;
constexpr std::chrono::seconds kAnswerLimit{5};

struct Driver {
  i32 process = kClosedProcess;
  i32 queue = -1;
  SemHandle lock = nullptr;
  u32 transactions = 0;  // under the lock
  Word unanswered;       // the number of the transaction that is going on, 0: none
};
Driver driver;

// Deliberate: these messages go to standard error only, whatever the print level.
i32 fail_init(const char* message) {
  driver.process = kClosedProcess;
  output(STDERR_FILENO, message);
  return -1;
}

ssize_t transact(SysMsgBuf& record) {
  driver.unanswered = static_cast<i32>(++driver.transactions);
  const ssize_t result = Msg_Transact(driver.queue, driver.process, &record, kRecordSize);
  driver.unanswered = 0;
  return result;
}

// Brings the answer's bytes from the slot, as far as the caller has room.
void take_reply(i32 offset, void* buffer, i32 length, i32& reply_length) {
  if (length <= reply_length) {
    ShareMemRead(offset, buffer, length);
    reply_length = length;
  } else {
    PRINT_DEBUG("%s:Recive buf too small!\n", "TransmitMsg2Sys");
    ShareMemRead(offset, buffer, reply_length);
  }
}

}  // namespace

i32 InitSysMsgDrv(i32 process_id) {
  if (process_id < 1 || process_id > 24) return fail_init("Error:Invalid Parameter\n");
  driver.process = process_id;
  if (ShareMemInit(kSysMsgKey) < 0) return fail_init("Error:Share Memory init fail\n");
  if (!driver.lock) driver.lock = MakeSem();
  if (!driver.lock) return fail_init("Error:No more memory to create semaphore\n");
  driver.queue = Msg_Init(kSysMsgKey);
  if (driver.queue >= 0) return 0;
  DestroySem(driver.lock);
  driver.lock = nullptr;
  return fail_init("Error:Msg_Init fail\n");
}

void CleanupSysMsgDrv() {
  driver.process = kClosedProcess;
  DestroySem(driver.lock);
  driver.lock = nullptr;
}

i32 SendMsg2Sys(i32 cmd, void* buffer, i32 length, i32* reply_length) {
  if (!buffer || static_cast<u32>(cmd) > kLastCommand) return -1;
  return TransmitMsg2Sys(buffer, length, reply_length, cmd);
}

i32 TransmitMsg2Sys(void* buffer, i32 length, i32* reply_length, i32 cmd) {
  const i32 offset = sys_slot_offset(driver.process);
  SysMsgBuf record{kServerMsgType, cmd, driver.process, length, offset};
  SemGuard guard(driver.lock);
  if (guard.given_up()) return -1;
  ShareMemWrite(offset, buffer, length);
  if (transact(record) < 0) return -1;
  if (reply_length && record.length >= 0) take_reply(offset, buffer, record.length, *reply_length);
  return record.length;
}

void EndOverdueSysMsg() {
  static i32 watched = 0;
  static Clock::time_point since;
  const i32 transaction = driver.unanswered;
  if (transaction == 0) return;
  const auto now = Clock::now();
  if (transaction != watched || Msg_Waits(driver.queue, kServerMsgType)) {
    watched = transaction;
    since = now;
  } else if (now - since > kAnswerLimit) {
    since = now;
    const SysMsgBuf failure{driver.process, 0, driver.process, -1, 0};
    msgsnd(driver.queue, &failure, kSysMsgPayload, IPC_NOWAIT);
  }
}
