#include "ipc/VeltoDrvMsg.h"

#include <cstring>
#include <string_view>

#include "ipc/msg_channel.h"
#include "ipc/msg_records.h"
#include "ipc/msg_util.h"
#include "ipc/sem_util.h"
#include "support/print.h"

constexpr char kPrintFile[] = "VeltoDrvMsg.c";

namespace {

constexpr i32 kUnconnectedProcess = 1;
constexpr std::size_t kRecordSize = kMsgTypeSize + kVeltoMsgPayload;

// Nothing is owed at the start: the first request is for the memory, and every answer to that is right.
struct Driver {
  MsgChannel channel{.key = kVeltoMsgKey, .process = kUnconnectedProcess, .owed = 0};
  SemHandle lock = nullptr;
};
Driver driver;

i32 fail_init() {
  driver.channel.process = kUnconnectedProcess;
  return -1;
}

// The row of a command; a number without one does not compile.
consteval const VeltoCommandRow& command(i32 number) { return *find_velto_command(number); }

u8* at(VeltoMsgBuf& record, i32 offset) { return record.payload + velto_payload_offset(offset); }

VeltoMsgBuf filled_record(const VeltoCommandRow& row, const void* in, std::string_view text) {
  VeltoMsgBuf record{};
  record.dest = kServerMsgType;
  record.cmd = row.number;
  if (row.request) record.src = driver.channel.process;
  // A word at an offset belongs to the word at offset - first_word of the caller's structure.
  for (const u8 offset : row.in)
    std::memcpy(at(record, offset), static_cast<const u8*>(in) + (offset - row.first_word), sizeof(i32));
  text.copy(reinterpret_cast<char*>(at(record, velto_text_offset(row))), row.text_room);
  return record;
}

// The reply's status; 0 when there is none.
i32 transact(const VeltoCommandRow& row, const void* in, void* out, std::string_view text) {
  if (row.request) Msg_Settle(driver.channel);
  VeltoMsgBuf record = filled_record(row, in, text);
  if (row.request)
    Msg_Transact(driver.channel, &record, kRecordSize);
  else
    Msg_Notify(driver.channel, &record, kRecordSize);
  for (const u8 offset : row.out)
    std::memcpy(static_cast<u8*>(out) + (offset - row.first_word), at(record, offset), sizeof(i32));
  return record.ret;
}

// One command under the lock; without it a one-way command still ends with 0, a request with -1.
i32 VeltoCall(const VeltoCommandRow& row, const void* in, void* out = nullptr, std::string_view text = {}) {
  SemGuard guard(driver.lock);
  if (!guard.given_up()) return transact(row, in, out, text);
  for (const u8 offset : row.out)
    std::memset(static_cast<u8*>(out) + (offset - row.first_word), 0, sizeof(i32));
  return row.request ? -1 : 0;
}

i32 ask_by_type(const VeltoCommandRow& row, VeltoFrame& frame) {
  const i32 status = VeltoCall(row, &frame, &frame);
  if (status != 0) frame.serial = -1;
  return status;
}

}  // namespace

i32 VeltoDrvInit(i32 process_id) {
  SetVeltoProcess(process_id);
  if (driver.channel.process != process_id) return -1;
  if (!driver.lock) driver.lock = MakeSem();
  if (!driver.lock) return fail_init();
  driver.channel.queue = Msg_Init(kVeltoMsgKey);
  if (driver.channel.queue < 0) {
    PRINT_ERROR("Msg_Init failed!\n");
    DestroySem(driver.lock);
    driver.lock = nullptr;
    return fail_init();
  }
  VeltoMsgBuf stale;
  Msg_Drain(driver.channel.queue, driver.channel.process, &stale, kRecordSize);
  return 0;
}

void VeltoDrvExit() {
  driver.channel.process = kUnconnectedProcess;
  DestroySem(driver.lock);
  driver.lock = nullptr;
}

void SetVeltoProcess(i32 process_id) {
  driver.channel.process = process_id >= 1 && process_id <= 24 ? process_id : kUnconnectedProcess;
}
void SetVeltoQueue(i32 queue) { driver.channel.queue = queue; }

i32 VeltoGetMemory(VeltoMemory& memory) {
  const i32 status = VeltoCall(command(kVeltoGetMemory), nullptr, &memory);
  if (status != 0) memory.address = 0;
  return status;
}
i32 VeltoSend2() { return VeltoCall(command(2), nullptr); }
i32 VeltoGetFrame3(VeltoFrame& frame) { return ask_by_type(command(3), frame); }
i32 VeltoGetFrame4(VeltoFrame& frame) { return VeltoCall(command(4), &frame, &frame); }
i32 VeltoGetFrame5(VeltoFrame& frame) { return VeltoCall(command(5), &frame, &frame); }
i32 VeltoSend6(const VeltoFrame& frame) { return VeltoCall(command(6), &frame); }
i32 VeltoGetBlock(VeltoFrame& frame) {
  VeltoCall(command(7), &frame, &frame);
  return frame.size;
}
i32 VeltoGetFrame8(VeltoFrame& frame) { return ask_by_type(command(8), frame); }
i32 VeltoGetFrame9(VeltoFrame& frame) {
  const i32 status = VeltoCall(command(9), &frame, &frame);
  if (status == 0) return frame.serial;
  return status == -1 ? -1 : -2;
}
i32 SendEncoderSettings(const EncoderSettingsMessage& message) {
  return VeltoCall(command(kVeltoEncoderSettings), &message);
}
i32 VeltoSend11(const VeltoSevenWords& words) { return VeltoCall(command(11), &words); }
i32 VeltoSend12(i32 value) { return VeltoCall(command(12), &value); }
i32 VeltoSend13(i32 first, i32 second) {
  const i32 value = static_cast<i32>(static_cast<u32>(first) << 16) | second;
  return VeltoCall(command(13), &value);
}
i32 VeltoSend15(i32 value) { return VeltoCall(command(15), &value); }
i32 VeltoSend16(i32 value) { return VeltoCall(command(16), &value); }
i32 VeltoSend17(i32 value) { return VeltoCall(command(17), &value); }
i32 VeltoSend18(i32 value) { return VeltoCall(command(18), &value); }
i32 VeltoSend19(i32 value) { return VeltoCall(command(19), &value); }
i32 VeltoRequest20(i32 value) { return VeltoCall(command(20), &value); }
i32 VeltoRequest21(const char* text) {
  constexpr const VeltoCommandRow& row = command(21);
  if (std::strlen(text) > row.text_room) return -1;
  return VeltoCall(row, nullptr, nullptr, text);
}
i32 VeltoSend22(i32 value) { return VeltoCall(command(22), &value); }
i32 VeltoSend23(i32 value) { return VeltoCall(command(23), &value); }
i32 VeltoSend24(i32 value, const char* text) { return VeltoCall(command(24), &value, nullptr, text); }
i32 VeltoSend25(i32 value, const char* text) { return VeltoCall(command(25), &value, nullptr, text); }
i32 VeltoSend26(i32 value) { return VeltoCall(command(26), &value); }
i32 VeltoSend27(i32 value) { return VeltoCall(command(27), &value); }

i32 VeltoPtzMode(i32 code) { return VeltoCall(command(kVeltoPtzMode), &code); }
i32 VeltoSend256(i32 value) { return VeltoCall(command(kVeltoPtzMode), &value); }
i32 VeltoPtzNotify(i32 value) { return VeltoCall(command(kVeltoPtzNotify), &value); }
i32 VeltoPtzGetPosition(i32& position) {
  return VeltoCall(command(kVeltoPtzGetPosition), nullptr, &position);
}
i32 VeltoPtzMotion(i32 motion) { return VeltoCall(command(kVeltoPtzMotion), &motion); }
i32 VeltoPtzSetPosition(const VeltoThreeWords& position) {
  return VeltoCall(command(kVeltoPtzSetPosition), &position);
}
i32 VeltoPtzGetAbsolute(VeltoThreeWords& position) {
  return VeltoCall(command(kVeltoPtzGetAbsolute), nullptr, &position);
}
