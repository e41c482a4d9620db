// The connection to a host, which is played here as Linux's virtual host controller plays it.
#include "sim/usbip/urbs.h"

#include <gmock/gmock.h>

#include <algorithm>
#include <random>
#include <set>

#include "tests/sim/usbip/urb_host.h"

namespace {

using namespace std::chrono_literals;
using Clock = std::chrono::steady_clock;

constexpr usb_ctrlrequest kGet = {USB_DIR_IN, 0, 0, 0, 4};
constexpr u32 kPackets = 32;
constexpr auto kTransferTime = kPackets * 125us;

// Answers after a random while, or not at all.
class Device : public sim::UrbDevice {
 public:
  sim::ControlOutcome control(const usb_ctrlrequest& setup, std::span<const u8>) override {
    std::this_thread::sleep_for(std::chrono::microseconds(random_() % 300));
    if (setup.bRequest == 1) return {.kind = sim::ControlOutcome::kNoAnswer};
    return {.data = {1, 2, 3, 4, 5, 6}};
  }
  std::size_t fill(std::span<sim::IsoPacket> packets, std::span<u8> data) override {
    for (sim::IsoPacket& packet : packets) packet.actual = 1;
    std::ranges::fill(data.first(packets.size()), u8{7});
    return packets.size();
  }
  void disconnect() override { ++disconnects; }

  std::atomic<int> disconnects = 0;

 private:
  std::minstd_rand random_{1};
};

class UrbsTest : public testing::Test {
 protected:
  UrbsTest() {
    int ends[2];
    EXPECT_EQ(socketpair(AF_UNIX, SOCK_STREAM, 0, ends), 0);
    host.emplace(ends[0]);
    connection.emplace(ends[1], device);
  }
  ~UrbsTest() override { EXPECT_EQ(host->wrong(), ""); }

  Device device;
  std::optional<UrbHost> host;
  std::optional<sim::UrbConnection> connection;
};

// A transfer that is taken back was answered before, or it never is. An answer that comes later makes Linux
// drop the device.
TEST_F(UrbsTest, EveryTransferIsAnsweredOnceInAThousandOrders) {
  std::minstd_rand random(20261122);
  std::set<u32> transfers;         // without an answer
  std::map<u32, u32> taking_back;  // the transfers, by the numbers of the requests
  unsigned answered = 0, taken = 0, too_late = 0;
  const auto take = [&](const UrbAnswer& answer) {
    if (!answer.taken_back) {
      EXPECT_EQ(transfers.erase(answer.number), 1u) << "the transfer was taken back, or has two answers";
      ++answered;
      return;
    }
    const u32 transfer = taking_back.at(answer.number);
    const bool was_open = transfers.erase(transfer) > 0;
    EXPECT_EQ(answer.status, was_open ? -ECONNRESET : 0);
    ++(was_open ? taken : too_late);
    host->forget(transfer);
  };
  for (int order = 0; order < 1000 && !HasFailure(); ++order) {
    std::vector<u32> sent;
    for (int i = 0; i < 5; ++i) {
      const auto request = static_cast<u8>(random() % 4);
      sent.push_back(random() % 2 ? host->stream(random() % 4)
                                  : host->control({USB_DIR_IN, request, 0, 0, 4}));
      transfers.insert(sent.back());
    }
    std::ranges::shuffle(sent, random);
    for (const u32 transfer : sent) {  // all of them, since those without an answer would stay open
      std::this_thread::sleep_for(std::chrono::microseconds(random() % 300));
      for (auto answer = host->next(0ms); answer; answer = host->next(0ms)) take(*answer);
      taking_back[host->take_back(transfer)] = transfer;
    }
    while (host->open() > 0) {
      const auto answer = host->next();
      ASSERT_TRUE(answer) << "order " << order;
      take(*answer);
    }
  }
  EXPECT_EQ(answered, too_late);
  EXPECT_EQ(answered + taken, 5000u);
  EXPECT_GT(answered, 500u);
  EXPECT_GT(taken, 500u);
}

TEST_F(UrbsTest, ATransferMayBeTakenBackBeforeItComes) {
  const u32 request = host->take_back(2);
  EXPECT_FALSE(host->next(50ms));
  EXPECT_EQ(host->control(kGet), 2u);
  const auto answer = host->answer_to(request);
  ASSERT_TRUE(answer);
  EXPECT_EQ(answer->status, -ECONNRESET);
  host->forget(2);
  EXPECT_TRUE(host->answer_to(host->control(kGet)));
}

TEST_F(UrbsTest, StreamsNoFasterThanABusAfterAStallAsWell) {
  for (int stall = 0; stall < 2; ++stall) {
    const auto begin = Clock::now();
    for (int i = 0; i < 5; ++i) host->stream(kPackets);
    for (int i = 1; i <= 40; ++i) {
      const auto answer = host->next();
      ASSERT_TRUE(answer);
      EXPECT_EQ(answer->status, 0);
      EXPECT_EQ(answer->data, std::vector<u8>(kPackets, 7)) << "the packets have no gaps between them";
      EXPECT_GE(Clock::now() - begin, i * kTransferTime);
      if (i <= 35) host->stream(kPackets);
    }
    std::this_thread::sleep_for(100ms);
  }
}

TEST_F(UrbsTest, AnswersHaveWhatWasAskedFor) {
  const auto answer = host->answer_to(host->control(kGet));
  ASSERT_TRUE(answer);
  EXPECT_EQ(answer->data, (std::vector<u8>{1, 2, 3, 4}));
  const auto set = host->answer_to(host->control({USB_DIR_OUT, 0, 0, 0, 3}, {1, 2, 3}));
  ASSERT_TRUE(set);
  EXPECT_EQ(set->actual, 3u);
}

std::vector<u8> bytes_of(std::initializer_list<u32> words, std::size_t size = sim::kUrbHeadSize) {
  std::vector<u8> bytes;
  for (const u32 word : words) {
    for (const int shift : {24, 16, 8, 0}) bytes.push_back(static_cast<u8>(word >> shift));
  }
  bytes.resize(size);
  return bytes;
}

std::vector<u8> joined(std::vector<u8> bytes, const std::vector<u8>& more) {
  bytes.insert(bytes.end(), more.begin(), more.end());
  return bytes;
}

TEST_F(UrbsTest, HostsThatBreakTheProtocolAreLeft) {
  const auto unanswered = bytes_of({1, 1, 0, 1, 0, 0, 4, 0, 0, 0, 0x80010000});
  std::vector<u8> taken_back;
  for (u32 i = 1; i <= 100; ++i) taken_back = joined(taken_back, bytes_of({2, i, 0, 0, 0, 1000 + i}));
  const struct {
    const char* what;
    std::vector<u8> bytes;
  } breaches[] = {
      {"no such command", bytes_of({7, 1})},
      {"too many bytes to the device", bytes_of({1, 1, 0, 0, 0, 0, 0x7FFFFFFF})},
      {"too much room", bytes_of({1, 1, 0, 1, 1, 0, 0x7FFFFFFF})},
      {"too many packets", bytes_of({1, 1, 0, 1, 1, 0, 3072, 0, 0x10000})},
      {"a packet outside", joined(bytes_of({1, 1, 0, 1, 1, 0, 3072, 0, 1}), bytes_of({3000, 100}, 16))},
      {"the same number twice", joined(unanswered, unanswered)},
      {"too many taken back before they come", taken_back},
      {"half a request", std::vector<u8>(20, 1)},
  };
  for (const auto& [what, bytes] : breaches) {
    int ends[2];
    ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM, 0, ends), 0);
    Device other;
    const sim::UrbConnection served(ends[1], other);
    UrbHost breaks(ends[0]);
    breaks.send_bytes(bytes);
    if (bytes.size() < sim::kUrbHeadSize) shutdown(ends[0], SHUT_WR);
    EXPECT_FALSE(breaks.next()) << what;
    for (const auto end = Clock::now() + 10s; other.disconnects == 0 && Clock::now() < end;)
      std::this_thread::sleep_for(1ms);
    EXPECT_TRUE(served.ended()) << what;
    EXPECT_EQ(other.disconnects, 1) << what;
  }
}

TEST_F(UrbsTest, HostsWithTooManyTransfersAreLeft) {
  for (int i = 0; i < 100; ++i) host->control({USB_DIR_IN, 1, 0, 0, 4});
  EXPECT_FALSE(host->next());
  connection.reset();
  EXPECT_EQ(device.disconnects, 1);
}

// Its own answers fill the socket; a host that is gone does not hold the device.
TEST_F(UrbsTest, HostThatDoesNotReadCanBeLeft) {
  for (int i = 0; i < 60; ++i) host->stream(3, 20'000);
  std::this_thread::sleep_for(50ms);
  connection.reset();
  EXPECT_EQ(device.disconnects, 1);
}

}  // namespace
