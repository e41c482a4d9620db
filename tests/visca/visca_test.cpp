// The relays against the server's end of the channel; the serial line over a pseudo-terminal pair.
#include "visca/visca.h"

#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/ioctl.h>
#include <termios.h>
#include <unistd.h>

#include <algorithm>
#include <climits>
#include <filesystem>
#include <vector>

#include "ipc/VeltoDrvMsg.h"
#include "tests/ipc/ipc_peer.h"

namespace {

using Bytes = std::vector<u8>;

void answer(VeltoMsgBuf& reply, i32 status) {
  reply.ret = status;
  put_le32(reply.payload + kVeltoWords, 0x80000007);
  put_le32(reply.payload + kVeltoWords + 4, 0x00018001);
  put_le32(reply.payload + kVeltoWords + 8, 0x00050002);
}

struct RelayRow {
  const char* name;
  u32 (*call)();
  const char* request;
  u32 result = 0;
  i32 status = 0;
};

template <auto kRelay, i32... kArguments>
u32 call() {
  return static_cast<u32>(kRelay(kArguments...));
}

const RelayRow kRelays[] = {
    {"notify", call<ptz_notify, -5>, "4:01010000 24:FBFFFFFF"},
    {"mode 1", call<ptz_mode, 1>, "4:00010000 24:02000000"},
    {"mode FF", call<ptz_mode, 0xFF>, "4:00010000 24:01000000"},
    {"mode 7", call<ptz_mode, 7>, "4:00010000"},
    {"pan 1 on", call<ptz_pan, 1, 9>, "4:03010000 24:01000000"},
    {"pan 0 on", call<ptz_pan, 0, -1>, "4:03010000 24:02000000"},
    {"tilt 1 on", call<ptz_tilt, 1, 1>, "4:03010000 24:03000000"},
    {"tilt 1 off", call<ptz_tilt, 1, 0>, "4:03010000"},
    {"tilt 2 on", call<ptz_tilt, 2, 1>, "4:03010000 24:04000000"},
    {"stop", call<ptz_stop>, "4:03010000"},
    {"set", call<ptz_set_pos, 0x1234, -2>, "4:04010000 28:34120000 32:FEFFFFFF"},
    {"get", call<ptz_get_pos>, "4:02010000 8:03000000", 0x80000007},
    {"get refused", call<ptz_get_pos>, "4:02010000 8:03000000", 0, -1},
    {"absolute", call<get_apantilt>, "4:05010000 8:03000000", 0x80050002},
    {"absolute, other status", call<get_apantilt>, "4:05010000 8:03000000", 0x80050002, -2},
    {"absolute refused", call<get_apantilt>, "4:05010000 8:03000000", 0, -1},
};

TEST(Ptz, RelaysReachTheServer) {
  sim::Run run;
  VeltoPeer peer(kVeltoMsgKey);
  ASSERT_EQ(VeltoDrvInit(kVeltoProcess), 0);
  testing::internal::CaptureStderr();
  for (const RelayRow& row : kRelays) {
    SCOPED_TRACE(row.name);
    u32 result = 0xDEAD;
    EXPECT_EQ(
        peer.serve([&] { result = row.call(); }, [&](VeltoMsgBuf& reply) { answer(reply, row.status); }),
        row.request);
    EXPECT_EQ(result, row.result);
  }
  EXPECT_EQ(testing::internal::GetCapturedStderr(), "Dis params get failed!\n");
}

/// A line with the controller's end in the test's hands; `held` is a second descriptor of the service's end.
class Uart : public testing::Test {
 protected:
  Uart() {
    grantpt(controller);
    unlockpt(controller);
    const std::filesystem::path line = run.path("/dev/ttyAMA2");
    std::filesystem::create_directories(line.parent_path());
    std::filesystem::create_symlink(ptsname(controller), line);
    held = open(ptsname(controller), O_RDWR | O_NOCTTY);
  }

  int waiting() const {
    int count = -1;
    ioctl(held, FIONREAD, &count);
    return count;
  }
  /// Puts bytes on the line and waits until they can be read.
  void deliver(const Bytes& bytes) const {
    const int target = waiting() + static_cast<int>(bytes.size());
    ASSERT_EQ(write(controller, bytes.data(), bytes.size()), static_cast<ssize_t>(bytes.size()));
    while (waiting() < target) usleep(100);
  }
  void discard() const { tcflush(held, TCIFLUSH); }
  /// The next bytes that the service has sent.
  Bytes sent(std::size_t count) const {
    Bytes bytes(count);
    for (std::size_t got = 0; got < count;) {
      const ssize_t more = read(controller, bytes.data() + got, count - got);
      if (more <= 0) return {};
      got += static_cast<std::size_t>(more);
    }
    return bytes;
  }
  void hang_up() { close(controller); }
  template <typename Call>
  static std::string told_by(Call call) {
    testing::internal::CaptureStderr();
    call();
    return testing::internal::GetCapturedStderr();
  }

  sim::Run run;
  int controller = posix_openpt(O_RDWR | O_NOCTTY);
  int held = -1;
};

Bytes counted(std::size_t count) {
  Bytes bytes(count);
  for (std::size_t i = 0; i < count; i++) bytes[i] = static_cast<u8>(i + 1);
  return bytes;
}

/// A frame of so many bytes, the terminator included.
Bytes frame_of(std::size_t count) {
  Bytes bytes = counted(count);
  bytes.back() = 0xFF;
  return bytes;
}

TEST_F(Uart, OpensRawAndBlocking) {
  termios before = {};
  tcgetattr(held, &before);
  before.c_iflag = IXON | ICRNL | ISTRIP;
  before.c_oflag = OPOST | ONLCR;
  before.c_cflag |= CSTOPB | CRTSCTS;
  before.c_lflag = ICANON | ECHO | ECHOE | ISIG | ECHOK | IEXTEN;
  before.c_cc[VMIN] = 1;
  before.c_cc[VTIME] = 7;
  cfsetspeed(&before, B9600);
  ASSERT_EQ(tcsetattr(held, TCSANOW, &before), 0);

  const std::string text = told_by(tty_open);
  int fd = -1;
  ASSERT_EQ(std::sscanf(text.c_str(), "uart fd %d\n", &fd), 1) << text;
  EXPECT_EQ(text, "uart fd " + std::to_string(fd) + "\n");
  EXPECT_EQ(fcntl(fd, F_GETFL) & (O_ACCMODE | O_NONBLOCK), O_RDWR);
  EXPECT_EQ(fcntl(fd, F_GETFD), FD_CLOEXEC);

  termios after = {};
  tcgetattr(fd, &after);
  EXPECT_EQ(after.c_iflag, 0u);
  EXPECT_EQ(after.c_oflag, tcflag_t{ONLCR});
  EXPECT_EQ(after.c_cflag & (CSIZE | CSTOPB | PARENB | CRTSCTS), tcflag_t{CS8});
  EXPECT_EQ(after.c_lflag, tcflag_t{ECHOK | IEXTEN});
  EXPECT_EQ(cfgetispeed(&after), speed_t{B115200});
  EXPECT_EQ(cfgetospeed(&after), speed_t{B115200});
  EXPECT_TRUE(std::equal(std::begin(before.c_cc), std::end(before.c_cc), after.c_cc));
}

TEST_F(Uart, WithoutALineNothingIsSentOrRead) {
  static u8 buffer[kUartReplyRoom];
  const auto use = [] {
    EXPECT_EQ(uart_write_buf(buffer, 1), -1);
    EXPECT_EQ(uart_read_buf(buffer, kUartReplyRoom), 0);
    uart_ack(buffer);
  };
  EXPECT_EQ(told_by(use), "uart_recive timeout 11 ack \n");
  EXPECT_EQ(told_by([] {
              close(STDIN_FILENO);
              tty_open();
            }),
            "uart fd 0\n");
  EXPECT_EQ(told_by(use), "uart_recive timeout 11 ack \n");
  std::filesystem::remove(run.path("/dev/ttyAMA2"));
  EXPECT_EQ(told_by(tty_open), "");
  EXPECT_EQ(told_by(use), "uart_recive timeout 11 ack \n");
}

TEST_F(Uart, WritesWholeFramesOrFails) {
  tty_open();
  const Bytes frame = {0x81, 0x01, 0x0A, 0x04, 0x3F, 0x03, 0xFF};
  EXPECT_EQ(uart_write_buf(frame.data(), 7), 0);
  EXPECT_EQ(sent(7), frame);
  EXPECT_EQ(uart_write_buf(frame.data(), 0), 0);
  const auto refused = [&](i32 length) {
    return told_by([&] { EXPECT_EQ(uart_write_buf(frame.data(), length), -1); });
  };
  EXPECT_EQ(refused(-1), "uart_write_buf error\n");
  UartExchange exchange;
  for (const i32 length : {1025, INT_MAX, INT_MIN}) {
    exchange.write_length = length;
    exchange.write_requested = 1;
    EXPECT_EQ(told_by([&] { uart_turn(exchange); }), "uart_write_buf error\n") << length;
    EXPECT_EQ(exchange.write_requested, 0);
  }
  hang_up();
  EXPECT_EQ(refused(7), "uart_write_buf error\n");
}

struct ReplyRow {
  const char* name;
  Bytes line;    // what the controller sends
  Bytes stored;  // what of it is taken off the line and stored
  const char* told = "";
  i32 maximum = 1000;
};

TEST_F(Uart, ReadsAReplyUpToItsTerminator) {
  tty_open();
  const char* too_many = "uart_read_buf too more !!!!!\n";
  const ReplyRow rows[] = {
      {"whole", {5, 6, 7, 0xFF, 9}, {5, 6, 7, 0xFF}},
      {"only a terminator", {0xFF}, {0xFF}},
      {"maximum first", {5, 6, 7, 8, 0xFF}, {5, 6, 7}, "", 3},
      {"maximum 0", {5}, {}, "", 0},
      {"maximum negative", {5}, {}, "", -1},
      {"60 bytes", counted(60), counted(51), too_many},
      {"60 bytes, maximum 51", counted(60), counted(51), too_many, 51},
      {"60 bytes, maximum 50", counted(60), counted(50), "", 50},
      {"silence", {}, {}, "uart_recive timeout 11 \n"},
  };
  for (const ReplyRow& row : rows) {
    SCOPED_TRACE(row.name);
    deliver(row.line);
    Bytes buffer(100, 0xEE), expected(100, 0xEE);
    std::copy(row.stored.begin(), row.stored.end(), expected.begin());
    i32 result = -1;
    EXPECT_EQ(told_by([&] { result = uart_read_buf(buffer.data(), row.maximum); }), row.told);
    EXPECT_EQ(result, row.stored.size() - std::count(row.stored.begin(), row.stored.end(), 0xFF));
    EXPECT_EQ(buffer, expected);
    EXPECT_EQ(waiting(), static_cast<int>(row.line.size() - row.stored.size()));
    discard();
  }
  EXPECT_EQ(sim::sleep_count().calls, 0u);
}

TEST_F(Uart, WorkersTurnServesOneWriteAndOneRead) {
  tty_open();
  struct {
    UartExchange exchange;
    u8 behind[64];
  } memory = {};
  UartExchange& exchange = memory.exchange;
  const ReplyRow rows[] = {
      {"frame", {0x90, 0x41, 0xFF, 1}, {0x90, 0x41, 0xFF}},
      {"longest frame", frame_of(16), frame_of(16)},
      {"60 bytes", counted(60), counted(16)},
      {"silence", {}, {}, "uart_recive timeout 11 \n"},
  };
  for (const ReplyRow& row : rows) {
    SCOPED_TRACE(row.name);
    deliver(row.line);
    exchange.read_done = 0;
    exchange.read_requested = 1;
    const sim::SleepCount before = sim::sleep_count();
    EXPECT_EQ(told_by([&] { uart_turn(exchange); }), row.told);
    EXPECT_EQ(sim::sleep_count().calls - before.calls, 1u);
    EXPECT_EQ(sim::sleep_count().microseconds - before.microseconds, 10000u);
    EXPECT_EQ(exchange.read_requested, 0);
    EXPECT_EQ(exchange.read_done, 1);
    EXPECT_EQ(exchange.read_length, static_cast<i32>(row.stored.size()));
    EXPECT_TRUE(std::equal(row.stored.begin(), row.stored.end(), exchange.receive));
    EXPECT_EQ(std::count(std::begin(memory.behind), std::end(memory.behind), 0), 64);
    discard();
  }
}

TEST_F(Uart, WorkerExchangesFramesAndCanBeCancelledWhileItWaitsForAByte) {
  UartExchange exchange;
  CancellableThread worker([&] { uart_pthread(&exchange); });
  const auto request = [&](const Bytes& frame) {
    exchange.read_done = 0;
    std::copy(frame.begin(), frame.end(), exchange.transmit);
    exchange.write_length = static_cast<i32>(frame.size());
    exchange.write_requested = 1;
    exchange.read_requested = 1;
    EXPECT_EQ(sent(frame.size()), frame);
  };
  request({0x88});  // nothing answers it; the line is open then
  for (u8 round = 0; round < 20; round++) {
    while (!exchange.read_done) usleep(100);
    const Bytes reply = {0x90, round, 0xFF};
    deliver(reply);
    request(Bytes(round + 1u, round));
    while (!exchange.read_done) usleep(100);
    EXPECT_EQ(Bytes(exchange.receive, exchange.receive + exchange.read_length), reply);
  }
  deliver({5});
  request({0x88});
  while (waiting() > 0) usleep(100);
  EXPECT_TRUE(worker.cancel_and_join());
  EXPECT_EQ(exchange.read_done, 0);
}

}  // namespace
