#include "ipc/VeltoDrvMsg.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <algorithm>
#include <cstring>

#include "common/stream_state.h"
#include "sim/parties/server.h"
#include "tests/ipc/ipc_peer.h"

namespace {

using testing::HasSubstr;

template <typename Words>
std::string text(i32 result, const Words& words) {
  std::string line = std::to_string(result) + ":";
  i32 copy[sizeof(words) / sizeof(i32)];
  std::memcpy(copy, &words, sizeof(copy));
  for (const i32 word : copy) line += ' ' + std::to_string(word);
  return line;
}
std::string text(i32 result) { return std::to_string(result); }

// Every word -7 but for serial 5 and stream type 2.
VeltoFrame wanted() { return {-7, 5, -7, -7, -7, 2, -7, -7, -7, -7, -7, -7, -7, -7}; }

template <typename Reply>
Reply start_of(i32 (*)(Reply&)) {
  if constexpr (std::is_same_v<Reply, VeltoFrame>) return wanted();
  return {};
}
template <auto kSender>
std::string ask() {
  auto reply = start_of(kSender);
  const i32 result = kSender(reply);
  return text(result, reply);
}

// The server answers with this status, and in each word with the word's own offset in the record.
void answer(VeltoMsgBuf& reply, i32 status) {
  reply.ret = status;
  for (i32 offset = 16; offset < 152; offset += 4) {
    u8* word = reply.payload + velto_payload_offset(offset);
    put_le32(word, static_cast<u32>(offset));
  }
}

struct Row {
  std::string (*call)();
  const char* request;
  const char* result;
  i32 status = 0;
};

constexpr char kName70[] = "0123456789012345678901234567890123456789012345678901234567890123456789";

const Row kRows[] = {
    {ask<VeltoGetMemory>, "4:01000000 8:03000000", "0: 16 20"},
    {ask<VeltoGetMemory>, "4:01000000 8:03000000", "9: 0 20", 9},
    {[] { return text(VeltoSend2()); }, "4:02000000", "0"},
    {ask<VeltoGetFrame3>, "4:03000000 8:03000000 44:02000000", "5: 24 -1 32 36 40 44 48 52 56 60 64 68 72 76",
     5},
    {ask<VeltoGetFrame4>, "4:04000000 8:03000000 28:05000000 44:02000000",
     "-3: 24 28 32 36 40 44 48 52 56 60 64 68 72 76", -3},
    {ask<VeltoGetFrame5>, "4:05000000 8:03000000 28:05000000 44:02000000",
     "-97: 24 5 32 36 40 2 48 52 56 -7 64 68 -7 -7", -97},
    {[] { return text(VeltoSend6(wanted())); }, "4:06000000 28:05000000 44:02000000", "0"},
    {ask<VeltoGetBlock>, "4:07000000 8:03000000 44:02000000", "32: 24 5 32 -7 -7 2 -7 -7 -7 -7 -7 -7 -7 -7",
     4},
    {ask<VeltoGetFrame8>, "4:08000000 8:03000000 44:02000000",
     "-1: 24 -1 32 36 40 44 48 52 56 60 64 68 72 76", -1},
    {ask<VeltoGetFrame9>, "4:09000000 8:03000000 44:02000000",
     "28: 24 28 32 36 40 2 48 52 56 -7 64 68 -7 -7"},
    {ask<VeltoGetFrame9>, "4:09000000 8:03000000 44:02000000", "-1: 24 28 32 36 40 2 48 52 56 -7 64 68 -7 -7",
     -1},
    {ask<VeltoGetFrame9>, "4:09000000 8:03000000 44:02000000", "-2: 24 28 32 36 40 2 48 52 56 -7 64 68 -7 -7",
     7},
    {[] {
       return text(SendEncoderSettings({2, 1, {3, 4, 5, 6, 7, 8, {9, 10, 11, 12, 13}}}));
     },
     "4:0A000000 24:02000000 28:01000000 32:03000000 36:04000000 40:05000000 44:06000000 48:07000000 "
     "52:08000000 56:09000000 60:0A000000 64:0B000000 68:0C000000 72:0D000000",
     "0"},
    {[] {
       return text(VeltoSend11({{1, 2, 3, 4, 5, 6, -7}}));
     },
     "4:0B000000 24:01000000 28:02000000 32:03000000 36:04000000 40:05000000 44:06000000 48:F9FFFFFF", "0"},
    {[] { return text(VeltoSend13(0x12, 0x34)); }, "4:0D000000 24:34001200", "0"},
    {[] { return text(VeltoRequest20(3)); }, "4:14000000 8:03000000 24:03000000", "-6", -6},
    {[] { return text(VeltoRequest21("abcde")); }, "4:15000000 8:03000000 24:61626364 28:65000000", "11", 11},
    {[] { return text(VeltoSend24(3, kName70)); },
     "4:18000000 24:03000000 28:30313233 32:34353637 36:38393031 40:32333435 44:36373839 48:30313233 "
     "52:34353637 56:38393031 60:32333435 64:36373839 68:30313233 72:34353637 76:38393031 80:32333435 "
     "84:36373839",
     "0"},
    {[] { return text(VeltoSend25(3, "x")); }, "4:19000000 24:03000000 28:78000000", "0"},
    {[] {
       return text(VeltoPtzSetPosition({{1, 2, -3}}));
     },
     "4:04010000 24:01000000 28:02000000 32:FDFFFFFF", "0"},
    {ask<VeltoPtzGetPosition>, "4:02010000 8:03000000", "0: 24"},
    {ask<VeltoPtzGetAbsolute>, "4:05010000 8:03000000", "-1: 24 28 32", -1},
};

// Those that send a command with one word.
struct WordSender {
  i32 (*send)(i32);
  i32 command;
};
constexpr WordSender kWordSenders[] = {
    {VeltoSend12, 12},   {VeltoSend15, 15},   {VeltoSend16, 16},     {VeltoSend17, 17},     {VeltoSend18, 18},
    {VeltoSend19, 19},   {VeltoSend22, 22},   {VeltoSend23, 23},     {VeltoSend26, 26},     {VeltoSend27, 27},
    {VeltoSend256, 256}, {VeltoPtzMode, 256}, {VeltoPtzNotify, 257}, {VeltoPtzMotion, 259},
};

class VeltoChannel : public testing::Test {
 protected:
  VeltoChannel() { EXPECT_EQ(VeltoDrvInit(kVeltoProcess), 0); }

  sim::Run run;
  VeltoPeer peer{kVeltoMsgKey};
};

TEST_F(VeltoChannel, EveryCommandsRecord) {
  for (const Row& row : kRows) {
    SCOPED_TRACE(row.request);
    std::string result;
    EXPECT_EQ(peer.serve([&] { result = row.call(); }, [&](auto& reply) { answer(reply, row.status); }),
              row.request);
    EXPECT_EQ(result, row.result);
    EXPECT_EQ(peer.waiting(), 0u);
  }
  for (const auto& [send, command] : kWordSenders) {
    EXPECT_EQ(send(-2), 0);
    const VeltoMsgBuf sent = peer.take();
    EXPECT_EQ(sent.cmd, command);
    EXPECT_EQ(record_text(sent, kVeltoMsgPayload).substr(11), "24:FEFFFFFF") << command;
  }
}

TEST_F(VeltoChannel, TheSimulatedServerKnowsEveryCommand) {
  const sim::Server server({});
  for (const WordSender& sender : kWordSenders) sender.send(2);
  for (const Row& row : kRows) row.call();  // the last is a request
  const auto received = server.received();
  EXPECT_EQ(received.size(), std::size(kRows) + std::size(kWordSenders));
  EXPECT_EQ(server.refused(), 0u);
  for (const VeltoCommandRow& row : kVeltoCommands) {
    const std::string begin = "velto " + std::to_string(row.number) + (row.request ? " R" : " O");
    EXPECT_TRUE(std::ranges::any_of(received, [&](const auto& line) { return line.starts_with(begin); }))
        << "no row of this test sends command " << row.number;
  }
}

TEST_F(VeltoChannel, TextsFitTheRecord) {
  const std::string longest(127, 'a');
  const std::string sent = peer.serve([&] { EXPECT_EQ(VeltoRequest21(longest.c_str()), 0); }, [](auto&) {});
  EXPECT_TRUE(sent.ends_with(" 144:61616161 148:61616100")) << sent;
  EXPECT_EQ(VeltoRequest21((longest + 'a').c_str()), -1);
  EXPECT_EQ(peer.waiting(), 0u);
}

TEST(VeltoDrvMsg, ConnectsWithIds1To24AndDrainsOldReplies) {
  sim::Run run;
  VeltoPeer peer(kVeltoMsgKey);
  const auto sender_id = [&] { return peer.serve([] { VeltoRequest20(0); }, [](auto&) {}); };
  for (const i32 id : {24, 2}) {
    for (int i = 0; i < 3; ++i) peer.send({id, 1, id, 0, {}});
    EXPECT_EQ(VeltoDrvInit(id), 0);
    EXPECT_EQ(peer.waiting(), 0u);
    EXPECT_EQ(sender_id(), id == 24 ? "4:14000000 8:18000000" : "4:14000000 8:02000000");
  }
  SetVeltoProcess(7);
  EXPECT_EQ(sender_id(), "4:14000000 8:07000000");
  // Without an id of its own a request would be its own reply.
  for (const i32 id : {0, 25, -1}) {
    SetVeltoProcess(7);
    EXPECT_EQ(VeltoDrvInit(id), -1);
    VeltoRequest20(id);
    EXPECT_EQ(peer.waiting(), 0u);
  }
}

TEST(VeltoDrvMsg, SendersRunUnconnected) {
  sim::Run run;
  testing::internal::CaptureStderr();
  EXPECT_EQ(VeltoSend12(1), 0);
  VeltoFrame frame = wanted();
  EXPECT_EQ(VeltoGetFrame4(frame), 0);
  EXPECT_EQ(text(0, frame), "0: 0 5 0 0 0 2 0 0 0 0 0 0 0 0");
  VeltoPeer peer(kVeltoMsgKey);
  SetVeltoQueue(peer.queue());
  EXPECT_EQ(peer.serve([] { VeltoSend12(1); }, [](auto&) {}), "4:0C000000 24:01000000");
  VeltoDrvExit();
  EXPECT_THAT(testing::internal::GetCapturedStderr(), HasSubstr("SemWait: Invalid Semaphore handler pid:"));
}

TEST_F(VeltoChannel, RequestOnARemovedQueueEnds) {
  std::thread remover([&] {
    peer.take();
    msgctl(peer.queue(), IPC_RMID, nullptr);
  });
  i32 position = 1;
  EXPECT_EQ(VeltoPtzGetPosition(position), 0);
  EXPECT_EQ(position, 0);
  remover.join();
  EXPECT_EQ(VeltoPtzGetPosition(position), 0);
}

TEST_F(VeltoChannel, CancelledRequestReleasesTheChannel) {
  i32 position = 0;
  CancellableThread control([&] { VeltoPtzGetPosition(position); });
  peer.take();  // and never answers
  EXPECT_TRUE(control.cancel_and_join());
  EXPECT_EQ(peer.serve([] { VeltoSend12(1); }, [](auto&) {}), "4:0C000000 24:01000000");
}

// A reply is addressed by process id only: were transactions to interleave, a thread would get another's.
TEST_F(VeltoChannel, EndOfTheProcessDoesNotWaitForAThreadWithoutReply) {
  CancellableThread control([] { VeltoRequest20(1); });
  peer.take();  // and never answers
  std::thread ender([] {
    usleep(50'000);
    uvc_stream_state.exit_flag = 1;
  });
  VeltoSend12(1);
  ender.join();
  EXPECT_EQ(peer.waiting(), 0u) << "nothing is sent without the lock";
  EXPECT_TRUE(control.cancel_and_join());
  VeltoSend12(2);
  EXPECT_EQ(peer.waiting(), 1u);
}

TEST_F(VeltoChannel, ThreadsKeepTheirOwnReplies) {
  const auto echo = [](VeltoMsgBuf& record) {
    record.ret = static_cast<i32>(get_le32(record.payload + kVeltoWords));
  };
  peer.serve_two(
      200, [](i32 value) { EXPECT_EQ(VeltoRequest20(value), value); }, echo);
}

}  // namespace
