#include "sim/server.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/ipc.h>
#include <sys/msg.h>
#include <sys/shm.h>

#include <cstring>
#include <span>
#include <thread>

#include "elog/elog_record.h"
#include "sim/collector.h"
#include "sim/run.h"

using sim::Server;
using sim::ServerFault;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::StartsWith;

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

VeltoMsgBuf velto(i32 cmd, i32 src, std::initializer_list<i32> words = {}, i32 offset = 24) {
  VeltoMsgBuf record{};
  record.cmd = cmd;
  record.src = src;
  u8* to = record.payload + velto_payload_offset(offset);
  for (const i32 word : words) put_le32(to, static_cast<u32>(word)), to += 4;
  return record;
}
i32 word_at(const VeltoMsgBuf& record, i32 offset) {
  return static_cast<i32>(get_le32(record.payload + velto_payload_offset(offset)));
}

}  // namespace

TEST(ServerTest, ControlChannelAndFramesMoveTheSameHead) {
  sim::Run run;
  sim::CameraHead head;
  const Server server({.head = &head});
  const VeltoClient client(kVeltoMsgKey);
  const auto word_of = [&](i32 cmd, i32 offset) {
    VeltoMsgBuf record = velto(cmd, kVeltoProcess);
    EXPECT_TRUE(client.call(record));
    return word_at(record, offset);
  };
  client.send(velto(kVeltoPtzSetPosition, 0, {99, 100, -3}));
  ASSERT_TRUE(within(2s, [&] { return head.position().pan == 100 && !head.moving(); }));
  EXPECT_EQ(word_of(kVeltoPtzGetPosition, 24), 100 << 16 | 0xFFFD);
  EXPECT_EQ(word_of(kVeltoPtzGetAbsolute, 28), 100);
  EXPECT_EQ(word_of(kVeltoPtzGetAbsolute, 32), 0xFFFD);

  const struct {
    i32 motion;
    double sim::CameraView::*axis;
    double sign;
  } motions[] = {{1, &sim::CameraView::pan, -1},
                 {2, &sim::CameraView::pan, 1},
                 {3, &sim::CameraView::tilt, 1},
                 {4, &sim::CameraView::tilt, -1}};
  for (const auto& [motion, axis, sign] : motions) {
    const double before = head.view().*axis;
    client.send(velto(kVeltoPtzMotion, 0, {motion}));
    EXPECT_TRUE(within(2s, [&] { return sign * (head.view().*axis - before) > 1; })) << motion;
    client.send(velto(kVeltoPtzMotion, 0, {0}));
    EXPECT_TRUE(within(2s, [&] { return !head.moving(); })) << motion;
  }
  client.send(velto(kVeltoPtzMotion, 0, {5}));
  EXPECT_TRUE(within(2s, [&] { return server.refused() == 1; }));
}

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

TEST(ServerTest, ASlowServerTakesItsTime) {
  sim::Run run;
  Server server({.pool_address = 1, .pool_size = 1});
  const VeltoClient client(kVeltoMsgKey);
  VeltoMsgBuf record = velto(kVeltoGetMemory, kVeltoProcess);

  server.set_fault(ServerFault::kSlow);
  client.send(record);
  EXPECT_FALSE(client.receive(record, 200ms));
  EXPECT_TRUE(client.receive(record));
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

namespace {

void log(i32 queue, u8 level, std::string_view text, i32 length_error = 0) {
  ElogRecord record{};
  record.type = kElogQueueType;
  record.payload.level = level;
  record.payload.length = static_cast<u32>(static_cast<i32>(text.size()) + length_error);
  std::ranges::copy(text, record.payload.text);
  ASSERT_EQ(msgsnd(queue, &record, kElogHeaderSize + text.size(), IPC_NOWAIT), 0);
}

}  // namespace

TEST(CollectorTest, PrintsWhatTheFiltersAdmitAndKeepsEverything) {
  sim::Run run;
  std::FILE* const output = std::tmpfile();
  const sim::Collector collector({.output = output, .level = 3, .contains = "UVC"});
  const int queue = msgget(sim::run_key(kElogQueueKey), 0);
  log(queue, 3, "UVC_EVENT_CONN\n\n");
  log(queue, 4, "UVC too detailed\n");
  log(queue, 2, "another matter\n");
  log(queue, 3, "UVC with a wrong length\n", 1);
  log(queue, 6, "UVC with an unknown level\n");
  ASSERT_TRUE(within(2s, [&] { return collector.counts().malformed == 2; }));
  EXPECT_EQ(collector.counts().lines, 3u);
  EXPECT_EQ(collector.counts().printed, 1u);
  EXPECT_EQ(collector.text(), "UVC_EVENT_CONN\n\nUVC too detailed\nanother matter\n");
  std::rewind(output);
  char printed[64] = {};
  EXPECT_GT(std::fread(printed, 1, sizeof printed - 1, output), 0u);
  EXPECT_STREQ(printed, "I UVC_EVENT_CONN\n");
  std::fclose(output);
}

TEST(CollectorTest, APausedCollectorLeavesAFullQueueAlone) {
  sim::Run run;
  sim::Collector collector({});
  const int queue = msgget(sim::run_key(kElogQueueKey), 0);
  collector.pause(true);
  log(queue, 3, "waits\n");
  collector.fill_queue();
  msqid_ds state;
  ASSERT_EQ(msgctl(queue, IPC_STAT, &state), 0);
  EXPECT_GT(state.__msg_cbytes + 16, state.msg_qbytes);
  EXPECT_EQ(collector.counts().lines, 0u);
  collector.pause(false);
  EXPECT_TRUE(within(2s, [&] { return collector.counts().lines > 100; }));
  EXPECT_THAT(collector.text(), StartsWith("waits\nfiller\n"));
}
