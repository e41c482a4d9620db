#include "ipc/msg_util.h"

#include <gtest/gtest.h>
#include <signal.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>

#include "common/stream_state.h"
#include "ipc/sem_util.h"
#include "platform/sys.h"
#include "tests/ipc/ipc_peer.h"

namespace {

constexpr key_t kKey = kVeltoMsgKey;
constexpr std::size_t kSize = kMsgTypeSize + kSysMsgPayload;

TEST(MsgUtil, OpensAndKillsQueues) {
  sim::Run run;
  const i32 created = Msg_Init(kKey);
  msqid_ds info;
  ASSERT_EQ(msgctl(created, IPC_STAT, &info), 0);
  EXPECT_EQ(info.msg_perm.mode & 0777, 0666);
  EXPECT_EQ(Msg_Init(kKey), created);
  EXPECT_EQ(Msg_Kill(created), 0);
  EXPECT_EQ(msgget(sim::run_key(kKey), 0), -1);
}

TEST(MsgUtil, SendsAndReceivesWholeRecords) {
  sim::Run run;
  SysPeer peer(kKey);
  SysMsgBuf record{kServerMsgType, 0x11, 0x22, 0x33, 0x44};
  EXPECT_EQ(Msg_Send(peer.queue(), &record, kSize), 0);
  EXPECT_EQ(record_text(peer.take(), kSysMsgPayload), "4:11000000 8:22000000 12:33000000 16:44000000");

  record.src = 15;
  const std::string sent =
      peer.serve([&] { EXPECT_EQ(Msg_Send_Rsv(peer.queue(), 15, &record, kSize), ssize_t{kSysMsgPayload}); },
                 [](SysMsgBuf& reply) { reply.length = -7; });
  EXPECT_EQ(sent, "4:11000000 8:0F000000 12:33000000 16:44000000");
  EXPECT_EQ(record_text(record, kSysMsgPayload), "4:11000000 8:0F000000 12:F9FFFFFF 16:44000000");

  Msg_Kill(peer.queue());
  EXPECT_EQ(Msg_Send_Rsv(peer.queue(), 15, &record, kSize), -1);
}

TEST(MsgUtil, DrainEndsOnlyWhenNothingIsLeft) {
  sim::Run run;
  SysPeer peer(kKey);
  const SysMsgBuf stale{15, 1, 2, 3, 4}, other{16, 9, 9, 9, 9};
  const VeltoMsgBuf long_one{15, 1, 2, 3, {}};
  peer.send(stale);
  peer.send(other);
  msgsnd(peer.queue(), &long_one, kVeltoMsgPayload, 0);
  peer.send({15, 5, 6, 7, 8});
  SysMsgBuf record{};
  EXPECT_EQ(Msg_Drain(peer.queue(), 15, &record, kSize), 0);
  EXPECT_EQ(record_text(record, kSysMsgPayload), "4:05000000 8:06000000 12:07000000 16:08000000");
  EXPECT_EQ(peer.waiting(), 1u);
  Msg_Kill(peer.queue());
  EXPECT_EQ(Msg_Drain(peer.queue(), 15, &record, kSize), -1);
}

class FullQueue : public testing::Test {
 protected:
  FullQueue() {
    while (msgsnd(peer.queue(), &record, kSysMsgPayload, IPC_NOWAIT) == 0) ++filled;
    sender = std::thread([this] { result = Msg_Send(peer.queue(), &record, kSize); });
  }
  void wait_for_retries() const {
    const unsigned long before = sim::sleep_count().calls;
    while (sim::sleep_count().calls < before + 3) usleep(1000);
  }

  sim::Run run;
  SysPeer peer{kKey};
  SysMsgBuf record{kServerMsgType, 1, 2, 3, 4};
  std::size_t filled = 0;
  std::atomic<i32> result = 1;
  std::thread sender;
};

TEST_F(FullQueue, SenderWaitsForRoomOrTheEndOfTheProcess) {
  wait_for_retries();
  EXPECT_EQ(result, 1);
  peer.take();
  sender.join();
  EXPECT_EQ(result, 0);

  sender = std::thread([this] { result = Msg_Send(peer.queue(), &record, kSize); });
  wait_for_retries();
  uvc_stream_state.exit_flag = 1;
  sender.join();
  EXPECT_EQ(result, -1);
  EXPECT_EQ(peer.waiting(), filled);
}

std::atomic<int> signals_taken = 0;

TEST(MsgUtil, SignalEndsAReceiveOnlyWhenTheProcessEnds) {
  sim::Run run;
  SysPeer peer(kKey);
  signal(SIGUSR2, [](int) { ++signals_taken; });
  std::atomic<bool> ended = false;
  ssize_t result = 0;
  SysMsgBuf record{};
  std::thread receiver([&] {
    result = Msg_Rsv(peer.queue(), 15, &record, kSize);
    ended = true;
  });
  const auto interrupt = [&] {
    const int before = signals_taken;
    pthread_kill(receiver.native_handle(), SIGUSR2);
    while (signals_taken == before) usleep(1000);
  };
  for (int i = 0; i < 5; ++i) interrupt();
  usleep(20000);
  EXPECT_FALSE(ended);
  uvc_stream_state.exit_flag = 1;
  while (!ended) interrupt();
  receiver.join();
  EXPECT_EQ(result, -1);
}

TEST(SemUtil, HolderFinishesBeforeTheLockIsDestroyed) {
  SemHandle lock = MakeSem();
  ASSERT_NE(lock, nullptr);
  int inside = 0;  // guarded by the lock
  std::atomic<bool> held = false;
  std::thread holder([&] {
    SemGuard guard(lock);
    held = true;
    usleep(20000);
    inside = 1;
  });
  while (!held) usleep(100);
  EXPECT_EQ(DestroySem(lock), 0);
  EXPECT_EQ(inside, 1);
  holder.join();
}

}  // namespace
