#include "ipc/sys_msg_drv.h"

#include <gtest/gtest.h>
#include <sys/ipc.h>
#include <sys/shm.h>

#include <algorithm>
#include <chrono>
#include <climits>
#include <vector>

#include "common/wait_limit.h"
#include "support/print.h"
#include "tests/ipc/ipc_peer.h"
#include "tests/printed_by.h"

namespace {

class SysMsgDrv : public testing::Test {
 protected:
  SysMsgDrv() { EXPECT_EQ(InitSysMsgDrv(kSysMsgProcess), 0); }
  ~SysMsgDrv() {
    if (segment) shmdt(segment);
  }

  sim::Run run;
  SysPeer peer{kSysMsgKey};
  u8* segment = static_cast<u8*>(
      shmat(shmget(sim::run_key(kSysMsgKey), kSysSegmentSize, IPC_CREAT | 0660), nullptr, 0));
  u8* slot = segment + 53248;
};

TEST_F(SysMsgDrv, BodyGoesThroughTheSlotAndBack) {
  const u8 frame[] = {0x81, 0x09, 0x04, 0xA4, 0xFF};
  struct Row {
    i32 reply, capacity;
    i32 stored, read;  // the length that is left to the caller, the bytes that reach him
  };
  for (const auto& [reply_length, capacity, stored, read] :
       std::initializer_list<Row>{{2, 16, 2, 2},
                                  {16, 16, 16, 16},
                                  {0, 16, 0, 0},
                                  {10, 8, 8, 8},
                                  {INT_MAX, 8, 8, 8},
                                  {10, -1, -1, 0},
                                  {-5, 16, 16, 0},
                                  {INT_MIN, 16, 16, 0}}) {
    SCOPED_TRACE(std::to_string(reply_length) + " " + std::to_string(capacity));
    std::vector<u8> buffer(32, 0xEE);
    std::copy(std::begin(frame), std::end(frame), buffer.begin());
    i32 result = 0, length = capacity;
    const std::string sent = peer.serve([&] { result = SendMsg2Sys(39, buffer.data(), 5, &length); },
                                        [&](SysMsgBuf& reply) {
                                          EXPECT_TRUE(std::equal(std::begin(frame), std::end(frame), slot));
                                          std::fill_n(slot, 4096, 0x77);
                                          reply.length = reply_length;
                                          reply.offset = -1;  // not the server's to choose
                                        });
    EXPECT_EQ(sent, "4:27000000 8:0F000000 12:05000000 16:00D00000");
    EXPECT_EQ(result, reply_length);
    EXPECT_EQ(length, stored);
    EXPECT_EQ(std::count(buffer.begin(), buffer.end(), 0x77), read);
    EXPECT_EQ(std::count(slot + 4096, slot + 2 * 4096, 0), 4096);
  }
}

TEST_F(SysMsgDrv, CommandsAbove63AreRefused) {
  u8 buffer[16] = {};
  i32 length = 16;
  for (const i32 cmd : {64, -1, INT_MAX, INT_MIN}) EXPECT_EQ(SendMsg2Sys(cmd, buffer, 1, &length), -1);
  EXPECT_EQ(SendMsg2Sys(39, nullptr, 1, &length), -1);
  EXPECT_EQ(peer.waiting(), 0u);
  EXPECT_EQ(peer.serve([&] { SendMsg2Sys(63, buffer, 1, &length); }, [](auto&) {}),
            "4:3F000000 8:0F000000 12:01000000 16:00D00000");
}

TEST_F(SysMsgDrv, TooLongABodyIsAnnouncedButNotWritten) {
  std::vector<u8> body(5000, 0x22);
  const auto call = [&] { EXPECT_EQ(TransmitMsg2Sys(body.data(), 4097, nullptr, 39), 4097); };
  EXPECT_EQ(peer.serve(call, [](auto&) {}), "4:27000000 8:0F000000 12:01100000 16:00D00000");
  EXPECT_EQ(std::count(segment, segment + kSysSegmentSize, 0x22), 0);
}

TEST_F(SysMsgDrv, ProcessIdsAre1To24) {
  for (const i32 id : {0, 25})
    EXPECT_EQ(printed_by([id] { EXPECT_EQ(InitSysMsgDrv(id), -1); }), "Error:Invalid Parameter\n");
  EXPECT_EQ(InitSysMsgDrv(24), 0);
  EXPECT_EQ(InitSysMsgDrv(1), 0);
  // Id 1 has no slot; its bytes must not land before the segment.
  u8 buffer[16] = {};
  EXPECT_EQ(TransmitMsg2Sys(buffer, 5, nullptr, 39), 5);
  EXPECT_EQ(peer.waiting(), 0u);
}

TEST_F(SysMsgDrv, SlotIsLeftToAnAnswerThatIsOwed) {
  const auto transmit = [](u8 first, std::chrono::milliseconds limit, u8* buffer) {
    const WaitLimit until(WaitLimit::Clock::now() + limit);
    buffer[0] = first;
    i32 room = 8;
    return TransmitMsg2Sys(buffer, 5, &room, 39);
  };
  u8 first[8] = {}, hurried[8] = {}, second[8] = {};
  SysMsgBuf late{};
  std::thread server([&] {
    late = peer.take();
    usleep(200'000);
    EXPECT_EQ(slot[0], 1) << "the second body came before the first answer";
    slot[0] = 11;
    late.dest = late.src;
    peer.send(late);
    SysMsgBuf next = peer.take();
    EXPECT_EQ(slot[0], 2);
    slot[0] = 22;
    next.dest = next.src;
    peer.send(next);
  });
  EXPECT_EQ(transmit(1, std::chrono::milliseconds(50), first), -1);
  EXPECT_EQ(transmit(3, std::chrono::milliseconds(100), hurried), -1);
  EXPECT_EQ(transmit(2, std::chrono::seconds(4), second), 5);
  EXPECT_EQ(second[0], 22);
  server.join();
}

TEST_F(SysMsgDrv, ACopyThatFailsEndsTheTransaction) {
  shmdt(segment);
  segment = nullptr;
  const auto remove_segment = [] { shmctl(shmget(sim::run_key(kSysMsgKey), 0, 0), IPC_RMID, nullptr); };
  u8 buffer[16] = {9};
  i32 length = 16;
  peer.serve([&] { EXPECT_EQ(TransmitMsg2Sys(buffer, 5, &length, 39), -1); },
             [&](SysMsgBuf&) { remove_segment(); });
  EXPECT_EQ(TransmitMsg2Sys(buffer, 5, &length, 39), -1);
  EXPECT_EQ(peer.waiting(), 0u) << "nothing is announced that is not there";
  EXPECT_EQ(length, 16);
  EXPECT_EQ(buffer[0], 9);
}

TEST_F(SysMsgDrv, ThreadsWaitForEachOthersTransactions) {
  const auto client = [](i32 length) {
    u8 buffer[16] = {};
    EXPECT_EQ(TransmitMsg2Sys(buffer, length, nullptr, 39), length);
  };
  peer.serve_two(300, client, [](SysMsgBuf&) {});  // answered with the length that was asked with
}

TEST_F(SysMsgDrv, CancelledTransactionReleasesTheChannel) {
  u8 buffer[16] = {};
  CancellableThread control([&] { TransmitMsg2Sys(buffer, 5, nullptr, 39); });
  peer.take();  // and never answers
  EXPECT_TRUE(control.cancel_and_join());
  peer.serve([&] { EXPECT_EQ(TransmitMsg2Sys(buffer, 3, nullptr, 39), 3); }, [](auto&) {});
  CleanupSysMsgDrv();
}

}  // namespace
