// The system server: any records in its channels' queues, before a request, as its reply and after it.
#include <sys/msg.h>
#include <sys/shm.h>

#include <array>
#include <atomic>
#include <mutex>
#include <thread>
#include <vector>

#include "ipc/VeltoDrvMsg.h"
#include "ipc/Velto_interface.h"
#include "ipc/file_msg_drv.h"
#include "ipc/msg_records.h"
#include "ipc/sys_msg_drv.h"
#include "platform/hi_mpi.h"
#include "sim/seam/run.h"
#include "support/print.h"
#include "tests/fuzz/fuzz.h"

namespace {

using fuzz::check;
using fuzz::Input;

constexpr u32 kPoolSize = 4097;
constexpr i32 kEndOfStep = -77;  // a command that the server takes as a sign

struct Message {
  long type;
  u8 bytes[512];
  std::size_t size;
};

// One channel with a server that sends what the input wants, and then what it should.
class Channel {
 public:
  Channel(key_t key, long client, std::size_t payload)
      : queue_(msgget(sim::run_key(key), IPC_CREAT | 0666)), client_(client), payload_(payload) {
    check(queue_ >= 0, "there is a queue");
    std::thread([this] { serve(); }).detach();
  }

  // Records for now, and for the next request.
  void plan(u32 before, u32 instead, Input& input) {
    const std::lock_guard lock(mutex_);
    for (; before > 0; --before) send(message(input));
    for (planned_.clear(); instead > 0; --instead) planned_.push_back(message(input));
  }
  // Waits until the server has done with every request, and throws away what is left.
  void clear() {
    Message message = {.type = kServerMsgType, .bytes = {}, .size = payload_};
    put_le32(message.bytes, static_cast<u32>(kEndOfStep));
    resting_ = false;
    msgsnd(queue_, &message, payload_, 0);
    resting_.wait(false);
    while (msgrcv(queue_, &message, 0, 0, IPC_NOWAIT | MSG_NOERROR) >= 0) continue;
  }

 private:
  Message message(Input& input) const {
    const u8 kind = input.take<u8>();
    Message made = {.type = kind % 8 == 7 ? 2 + kind / 8 : client_, .bytes = {}, .size = payload_};
    if (kind & 0x10) made.size = input.take<u16>() % sizeof(made.bytes);
    const auto bytes = input.bytes(kind & 0x20 ? made.size : std::min<std::size_t>(made.size, 36));
    std::copy(bytes.begin(), bytes.end(), made.bytes);
    return made;
  }
  void send(const Message& message) const { msgsnd(queue_, &message, message.size, IPC_NOWAIT); }

  void serve() {
    Message request;
    for (ssize_t size; (size = msgrcv(queue_, &request, sizeof(request.bytes), kServerMsgType, 0)) >= 0;) {
      if (static_cast<i32>(get_le32(request.bytes)) == kEndOfStep) {
        resting_ = true;
        resting_.notify_one();
        continue;
      }
      if (get_le32(request.bytes + 4) == 0) continue;  // one-way
      const std::lock_guard lock(mutex_);
      for (const Message& wrong : planned_) send(wrong);
      planned_.clear();
      request.type = client_;
      request.size = payload_;
      send(request);
    }
  }

  const int queue_;
  const long client_;
  const std::size_t payload_;
  std::mutex mutex_;
  std::vector<Message> planned_;
  std::atomic<bool> resting_;
};

const fuzz::Guarded& pool() {
  static const fuzz::Guarded memory(kPoolSize);
  return memory;
}

struct Machine {
  Machine() {
    check(shmget(sim::run_key(kFileMsgKey), 4096, IPC_CREAT | 0666) >= 0, "there is a parameter segment");
    check(InitSysMsgDrv(kSysMsgProcess) == 0 && VeltoDrvInit(kVeltoProcess) == 0 &&
              InitFileMsgDrv(kFileMsgKey, kFileMsgProcess) == 0,
          "the channels are there");
    VeltoMsgBuf memory = {.dest = kVeltoProcess, .cmd = 0, .src = 0, .ret = 0, .payload = {}};
    put_le32(memory.payload + kVeltoMemoryAddress, 0x88000000);
    put_le32(memory.payload + kVeltoMemorySize, kPoolSize);
    std::array<u8, 1 + kVeltoMsgPayload> bytes{0x20};
    std::memcpy(&bytes[1], &memory.cmd, kVeltoMsgPayload);
    Input reply(bytes.data(), bytes.size());
    velto.plan(0, 1, reply);
    check(func_get_mem(nullptr) == 0, "the pool is mapped");
    velto.clear();
    print_level = 4;
  }
  sim::Run run;
  Channel sys{kSysMsgKey, kSysMsgProcess, kSysMsgPayload};
  Channel velto{kVeltoMsgKey, kVeltoProcess, kVeltoMsgPayload};
  Channel file{kFileMsgKey, kFileMsgProcess, kFileMsgPayload};
};

void ask_system(u8 kind, Input& input) {
  static const fuzz::Guarded memory(8192);
  const i32 length = static_cast<i32>(input.number() - 2);
  const i32 room = input.take<i16>() % 8192;
  const auto own = static_cast<std::size_t>(std::clamp(length, 0, 4096));
  u8* const buffer = memory.lend(std::max(own, static_cast<std::size_t>(std::max(room, 0)))).data();
  i32 answered = room;
  if (kind & 1)
    SendMsg2Sys(input.take<i8>(), buffer, length, &answered);
  else
    TransmitMsg2Sys(buffer, length, kind & 2 ? &answered : nullptr, 39);
  check(answered <= room, "an answer is no longer than the caller has room for");
}

void ask_for_data(Input& input) {
  const i32 operation = input.take<u8>() % 10 - 1, type = input.take<i8>();
  const i32 serial = input.take<i8>();
  AvData data{};
  if (GetAVData(type, operation, serial, data) != kAvOk || !data.pointer) return;
  const auto* bytes = static_cast<const volatile u8*>(data.pointer);
  for (i32 i = 0; i < data.size; ++i) (void)bytes[i];
}

void ask_velto(u8 kind, Input& input) {
  const u8 call = kind % 8;
  VeltoMemory memory;
  VeltoThreeWords words;
  i32 position;
  if (call == 0) VeltoGetMemory(memory);
  if (call == 1) VeltoPtzGetPosition(position);
  if (call == 2) VeltoPtzGetAbsolute(words);
  if (call == 3) VeltoRequest21(input.line().c_str());
  if (call == 4) VeltoSend24(0, input.line().c_str());
  if (call > 4) ask_for_data(input);
}

void ask_file(u8 kind, Input& input) {
  if (kind % 4 == 0) SetSysInfo(input.take<i8>());
  if (kind % 4 == 1) fResetSysInfo();
  if (kind % 4 == 2) SetSysMac(input.line().c_str());
  if (kind % 4 == 3) SetSysRecord52({}, input.take<i8>());
}

}  // namespace

i32 HI_MPI_VPSS_GetChnFrame(i32, i32, VpssPicture*, i32) { return -1; }
i32 HI_MPI_VPSS_ReleaseChnFrame(i32, i32, const VpssPicture*) { return 0; }
void* HI_MPI_SYS_Mmap(u32, u32) { return nullptr; }
void* HI_MPI_SYS_MmapCache(u32, u32 size) { return pool().lend(size).data(); }
i32 HI_MPI_SYS_Munmap(void*, u32) { return 0; }

extern "C" int LLVMFuzzerTestOneInput(const u8* bytes, std::size_t size) {
  static Machine& machine = *new Machine;  // its servers run to the end
  Input input(bytes, size);
  for (int steps = 0; !input.empty() && steps < 10; ++steps) {
    const u8 where = input.take<u8>(), kind = input.take<u8>();
    Channel& channel = where % 4 == 0 ? machine.sys : where % 4 == 1 ? machine.file : machine.velto;
    channel.plan(where / 4 % 4, where / 16 % 4, input);
    if (where % 4 == 0) ask_system(kind, input);
    if (where % 4 == 1) ask_file(kind, input);
    if (where % 4 >= 2) ask_velto(kind, input);
    channel.clear();
  }
  return 0;
}
