#include "sim/server.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/ipc.h>
#include <sys/msg.h>
#include <sys/shm.h>

#include <cstring>
#include <span>
#include <thread>

#include "sim/run.h"

using sim::Server;
using testing::ElementsAre;
using testing::HasSubstr;

namespace {

using namespace std::chrono_literals;

template <class Condition>
bool within(std::chrono::milliseconds limit, Condition condition) {
  const auto end = std::chrono::steady_clock::now() + limit;
  while (!condition()) {
    if (std::chrono::steady_clock::now() > end) return false;
    std::this_thread::sleep_for(1ms);
  }
  return true;
}

/// The client's end of a channel.
template <class Record, std::size_t kPayload>
struct Client {
  explicit Client(i32 key) : queue(msgget(sim::run_key(key), 0)) { EXPECT_GE(queue, 0); }

  void send(Record record, std::size_t size = kPayload) const {
    record.dest = kServerMsgType;
    ASSERT_EQ(msgsnd(queue, &record, size, 0), 0);
  }
  /// False when no reply came within the time.
  bool receive(Record& record, std::chrono::milliseconds limit = 2s) const {
    const long type = record.src;
    return within(limit, [&] { return msgrcv(queue, &record, kPayload, type, IPC_NOWAIT) >= 0; });
  }
  bool call(Record& record) const {
    send(record);
    return receive(record);
  }
  const int queue;
};
using FileClient = Client<FileMsgBuf, kFileMsgPayload>;
using VeltoClient = Client<VeltoMsgBuf, kVeltoMsgPayload>;
using SysClient = Client<SysMsgBuf, kSysMsgPayload>;

FileMsgBuf file(i32 cmd, i32 src, i32 info) { return {0, cmd, src, 0, 0, info, {}}; }
SysMsgBuf sys(i32 cmd, i32 src, i32 length, i32 offset) { return {0, cmd, src, length, offset}; }

u8* attach(i32 key) { return static_cast<u8*>(shmat(shmget(sim::run_key(key), 0, 0), nullptr, 0)); }

VeltoMsgBuf velto(i32 cmd, i32 src) { return {0, cmd, src, 0, {}}; }

}  // namespace

TEST(ServerTest, FramesAreReadFromAndAnsweredInTheSendersSlotAndTheCacheFollows) {
  sim::Run run;
  const Server server({.cache_valid = true});
  const SysClient client(kSysMsgKey);
  u8* const segment = attach(kSysMsgKey);
  u8* const parameters = attach(kFileMsgKey);
  u8* const slot = segment + sys_slot_offset(kSysMsgProcess);
  const auto call = [&](std::vector<u8> body) {
    std::ranges::copy(body, slot);
    SysMsgBuf record =
        sys(39, kSysMsgProcess, static_cast<i32>(body.size()), sys_slot_offset(kSysMsgProcess));
    EXPECT_TRUE(client.call(record));
    return std::vector<u8>(slot, slot + record.length);
  };
  EXPECT_THAT(call({0x81, 0x01, 0x04, 0xA4, 0, 0, 0, 0x0F, 0xFF}), ElementsAre(0x90, 0x41, 0xFF));
  EXPECT_THAT(call({0x81, 0x09, 0x04, 0xA4, 0xFF}), ElementsAre(15, 0, 0, 0));
  EXPECT_THAT(call({0x81, 0x01, 0x04, 0x35, 0x06, 0xFF}), ElementsAre(0x90, 0x41, 0xFF));
  EXPECT_EQ(server.refused(), 0u);
  EXPECT_THAT(call({0x81, 0x01, 0x04, 0xAA, 0x03, 0xFF}), ElementsAre(0x90, 0x61, 0x41, 0xFF));
  EXPECT_EQ(server.refused(), 1u);
  EXPECT_THAT(
      server.received(),
      ElementsAre("sys 39 81 01 04 A4 00 00 00 0F FF -> 90 41 FF", "sys 39 81 09 04 A4 FF -> 0F 00 00 00",
                  "sys 39 81 01 04 35 06 FF -> 90 41 FF", "sys 39 81 01 04 AA 03 FF -> 90 61 41 FF"));
  CameraCache cache;
  std::memcpy(&cache, parameters + kCameraCacheOffset, sizeof cache);
  EXPECT_THAT(std::span(cache.words).first(10), ElementsAre(15, 8, 0, 8, 3, 0, 0, 0, 0, 0));
  EXPECT_EQ(cache.valid, CAMERA_CACHE_VALID);
  shmdt(parameters);
  shmdt(segment);
}

TEST(ServerTest, AbsurdRequestsAreRefusedAndCounted) {
  sim::Run run;
  const Server server({});
  const SysClient client(kSysMsgKey);
  const i32 slot = sys_slot_offset(kSysMsgProcess);
  for (SysMsgBuf record : {sys(39, kSysMsgProcess, 4097, slot), sys(39, kSysMsgProcess, -1, slot),
                           sys(39, kSysMsgProcess, 8, -4096), sys(39, kSysMsgProcess, 8, 0x7FFFFFFF),
                           sys(64, kSysMsgProcess, 8, slot), sys(38, kSysMsgProcess, 8, slot)}) {
    ASSERT_TRUE(client.call(record));
    EXPECT_EQ(record.length, -1);
  }
  client.send(sys(39, 25, 8, sys_slot_offset(25)));
  client.send(sys(39, 1, 8, sys_slot_offset(1)));  // would answer itself
  client.send(sys(39, kSysMsgProcess, 0, slot), 3);
  const VeltoClient velto_client(kVeltoMsgKey);
  VeltoMsgBuf unknown = velto(14, kVeltoProcess);
  EXPECT_TRUE(velto_client.call(unknown));
  EXPECT_EQ(unknown.ret, -1);
  velto_client.send(velto(kVeltoGetMemory, 0));
  velto_client.send(velto(kVeltoGetMemory, kVeltoProcess), 4);
  FileMsgBuf unknown_file = file(4, kFileMsgProcess, 0);
  unknown_file.length = kSysInfoLength;
  EXPECT_TRUE(FileClient(kFileMsgKey).call(unknown_file));
  EXPECT_EQ(unknown_file.length, 0);
  ASSERT_TRUE(within(2s, [&] { return server.refused() == 13; })) << server.refused();
  EXPECT_THAT(server.received().front(), HasSubstr("refused"));
}

TEST(ServerTest, EndsWithItsQueuesFullOfRepliesThatNobodyTakes) {
  sim::Run run;
  auto server = std::make_unique<Server>(sim::ServerOptions{});
  const VeltoClient client(kVeltoMsgKey);
  VeltoMsgBuf stale = velto(1, 0);
  stale.dest = kVeltoProcess;
  while (msgsnd(client.queue, &stale, kVeltoMsgPayload, IPC_NOWAIT) == 0) continue;
  server.reset();
  msqid_ds state;
  EXPECT_EQ(msgctl(client.queue, IPC_STAT, &state), 0) << "the queue is its clients' as well";
}
