#include "ipc/msg_channel.h"

#include <gtest/gtest.h>

#include <atomic>
#include <cerrno>
#include <chrono>
#include <thread>

#include "ipc/msg_util.h"
#include "ipc/sem_util.h"
#include "tests/ipc/ipc_peer.h"

using namespace std::chrono_literals;

namespace {

constexpr std::size_t kSize = kMsgTypeSize + kSysMsgPayload;
constexpr i32 kSelf = 15;

// A client and its server, whose answers carry the number of the request in the length.
class MsgChannelTest : public testing::Test {
 protected:
  // The answer to request `number`, or the errno as a negative number.
  i32 ask(i32 number, std::chrono::milliseconds limit = 2s) {
    const WaitLimit until(WaitLimit::Clock::now() + limit);
    Msg_Settle(channel);
    SysMsgBuf record{kServerMsgType, 39, kSelf, number, 0};
    return Msg_Transact(channel, &record, kSize) < 0 ? -errno : record.length;
  }
  void answer(i32 number) { peer.send({kSelf, 39, kSelf, number, 0}); }
  void take_and_answer() { answer(peer.take().length); }

  // One request while the server does something with it.
  template <typename Work>
  i32 ask_while(i32 number, Work work, std::chrono::milliseconds limit = 2s) {
    std::thread server(work);
    const i32 result = ask(number, limit);
    server.join();
    return result;
  }

  sim::Run run;
  SysPeer peer{kSysMsgKey};
  MsgChannel channel{.key = kSysMsgKey, .process = kSelf, .queue = peer.queue()};
};

TEST_F(MsgChannelTest, AnAnswerBelongsToItsRequestHoweverLateItComes) {
  const auto give_up = [&](i32 number) { ASSERT_EQ(ask(number, 30ms), -ETIMEDOUT); };

  give_up(1);  // taken and answered before the next is asked
  peer.take();
  answer(1);
  EXPECT_EQ(ask_while(2, [&] { usleep(20'000), take_and_answer(); }), 2) << "no more is owed from the start";

  give_up(3);  // both are taken only after the second was sent
  EXPECT_EQ(ask_while(4, [&] { usleep(20'000), take_and_answer(), take_and_answer(); }), 4);

  give_up(5);  // the server is still busy with it when the next is sent
  peer.take();
  EXPECT_EQ(ask_while(6, [&] { usleep(50'000), answer(5), usleep(30'000), take_and_answer(); }), 6);

  give_up(7);  // two are owed
  give_up(8);
  EXPECT_EQ(ask_while(9,
                      [&] {
                        for (int i = 0; i < 3; ++i) usleep(20'000), take_and_answer();
                      }),
            9);

  EXPECT_EQ(ask_while(10, [&] { take_and_answer(); }), 10);
  EXPECT_EQ(peer.waiting(), 0u);
}

TEST_F(MsgChannelTest, ALostAnswerIsForgottenOnceTheServerTakesTheNextRequest) {
  for (const useconds_t busy_with_others : {0, 20'000}) {
    ASSERT_EQ(ask(1, 30ms), -ETIMEDOUT);
    peer.take();  // and never answers
    for (const i32 number : {2, 3}) {
      const auto work = [&] {
        usleep(busy_with_others);
        const SysMsgBuf request = peer.take();
        usleep(20'000);
        answer(request.length);
      };
      EXPECT_EQ(ask_while(number, work), number);
    }
  }
}

TEST_F(MsgChannelTest, ADebtOf8SecondsIsOnlySuspected) {
  for (const i32 debts : {1, 2}) {
    channel.owed = debts;
    channel.suspected = false;
    channel.owed_since = WaitLimit::Clock::now() - 8s;
    EXPECT_EQ(ask_while(1, [&] { usleep(20'000), take_and_answer(); }), 1);
    EXPECT_EQ(channel.owed, 0u);
  }
}

TEST_F(MsgChannelTest, AFreshStartOwesWhatTheProcessBeforeItAsked) {
  answer(77);
  EXPECT_EQ(ask_while(1, [&] { take_and_answer(); }), 1);

  channel = {.key = kSysMsgKey, .process = kSelf, .queue = peer.queue()};
  EXPECT_EQ(ask_while(2, [&] { usleep(50'000), answer(77), take_and_answer(); }), 2);

  channel = {.key = kSysMsgKey, .process = kSelf, .queue = peer.queue()};
  EXPECT_EQ(ask_while(3, [&] { usleep(50'000), take_and_answer(); }), 3) << "nothing was owed after all";
}

// A tidy transaction would drain before it fills the record.
TEST_F(MsgChannelTest, AStaleAnswerThatNobodyIsOwedTakesTheRequestsPlace) {
  channel.owed = 0;
  peer.send({kSelf, 0x77, kSelf, 0x66, 0x55});
  EXPECT_EQ(ask(1), 0x66);
  EXPECT_EQ(peer.waiting(), 0u);
}

TEST_F(MsgChannelTest, AnswersOfAnotherLengthAreNoAnswers) {
  const VeltoMsgBuf long_one{kSelf, 1, 2, 3, {}};
  msgsnd(peer.queue(), &long_one, kVeltoMsgPayload, 0);  // of the process before this one
  EXPECT_EQ(ask_while(1, [&] { take_and_answer(); }), 1);
  EXPECT_EQ(ask_while(2, [&] { peer.take(), msgsnd(peer.queue(), &long_one, kVeltoMsgPayload, 0); }), -E2BIG);
  EXPECT_EQ(ask_while(3, [&] { take_and_answer(); }), 3);
}

TEST_F(MsgChannelTest, EveryWaitKeepsTheLimit) {
  const auto start = WaitLimit::Clock::now();
  EXPECT_EQ(ask(1, 50ms), -ETIMEDOUT);  // nobody answers
  SysMsgBuf record{kServerMsgType, 39, kSelf, 0, 0};
  while (msgsnd(peer.queue(), &record, kSysMsgPayload, IPC_NOWAIT) == 0) continue;
  EXPECT_EQ(ask(2, 50ms), -ETIMEDOUT);  // nobody makes room
  SemHandle lock = MakeSem();
  {
    const SemGuard held(lock);
    std::thread([&] {
      const WaitLimit until(WaitLimit::Clock::now() + 50ms);
      EXPECT_TRUE(SemGuard(lock).given_up());
    }).join();
  }
  DestroySem(lock);
  EXPECT_LT(WaitLimit::Clock::now() - start, 1s);
}

TEST_F(MsgChannelTest, AQueueMadeAnewIsFoundAgain) {
  EXPECT_EQ(ask(1, 30ms), -ETIMEDOUT);
  const auto make_anew = [&] {
    msgctl(peer.queue(), IPC_RMID, nullptr);
    peer = SysPeer(kSysMsgKey);
  };
  make_anew();
  EXPECT_EQ(ask_while(2, [&] { take_and_answer(); }), 2);
  make_anew();
  SysMsgBuf notice{kServerMsgType, 10, 0, 3, 0};
  EXPECT_EQ(Msg_Notify(channel, &notice, kSize), 0);
  EXPECT_EQ(peer.take().length, 3);
  msgctl(peer.queue(), IPC_RMID, nullptr);
  EXPECT_EQ(Msg_Notify(channel, &notice, kSize), -1);
}

}  // namespace
