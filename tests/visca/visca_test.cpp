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
#include <numeric>
#include <vector>

#include "ipc/VeltoDrvMsg.h"
#include "tests/ipc/ipc_peer.h"
#include "tests/printed_by.h"

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

// A line with the controller's end in the test's hands; `held` is a second descriptor of the service's end.
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
  // Puts bytes on the line and waits until they can be read.
  void deliver(const Bytes& bytes) const {
    const int target = waiting() + static_cast<int>(bytes.size());
    ASSERT_EQ(write(controller, bytes.data(), bytes.size()), static_cast<ssize_t>(bytes.size()));
    while (waiting() < target) usleep(100);
  }
  void discard() const { tcflush(held, TCIFLUSH); }
  // The next bytes that the service has sent.
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

  sim::Run run;
  int controller = posix_openpt(O_RDWR | O_NOCTTY);
  int held = -1;
};

Bytes counted(std::size_t count) {
  Bytes bytes(count);
  std::iota(bytes.begin(), bytes.end(), u8{1});
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

  const std::string text = printed_by(tty_open);
  int fd = -1;
  ASSERT_EQ(std::sscanf(text.c_str(), "uart fd %d\n", &fd), 1) << text;
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
  EXPECT_EQ(printed_by(use), "uart_recive timeout 11 ack \n");
  EXPECT_EQ(printed_by([] {
              close(STDIN_FILENO);
              tty_open();
            }),
            "uart fd 0\n");
  EXPECT_EQ(printed_by(use), "uart_recive timeout 11 ack \n");
  std::filesystem::remove(run.path("/dev/ttyAMA2"));
  EXPECT_EQ(printed_by(tty_open), "");
  EXPECT_EQ(printed_by(use), "uart_recive timeout 11 ack \n");
}

TEST_F(Uart, WritesWholeFramesOrFails) {
  tty_open();
  const Bytes frame = {0x81, 0x01, 0x0A, 0x04, 0x3F, 0x03, 0xFF};
  EXPECT_EQ(uart_write_buf(frame.data(), 7), 0);
  EXPECT_EQ(sent(7), frame);
  EXPECT_EQ(uart_write_buf(frame.data(), 0), 0);
  const auto refused = [&](i32 length) {
    return printed_by([&] { EXPECT_EQ(uart_write_buf(frame.data(), length), -1); });
  };
  EXPECT_EQ(refused(-1), "uart_write_buf error\n");
  UartExchange exchange;
  for (const i32 length : {1025, INT_MAX, INT_MIN}) {
    exchange.write_length = length;
    exchange.write_requested = 1;
    EXPECT_EQ(printed_by([&] { uart_turn(exchange); }), "uart_write_buf error\n") << length;
    EXPECT_EQ(exchange.write_requested, 0);
  }
  hang_up();
  EXPECT_EQ(refused(7), "uart_write_buf error\n");
}

// A read in one turn of the worker, with the signature of uart_read_buf.
i32 read_by_worker(u8* buffer, i32) {
  UartExchange exchange;
  exchange.read_requested = 1;
  uart_turn(exchange);
  EXPECT_EQ(exchange.read_requested, 0);
  EXPECT_EQ(exchange.read_done, 1);
  std::copy_n(exchange.receive, exchange.read_length, buffer);
  return exchange.read_length;
}

struct ReplyRow {
  const char* name;
  i32 (*read)(u8* buffer, i32 maximum);
  i32 maximum;
  Bytes line;    // what the controller sends
  Bytes stored;  // what of it is taken off the line and stored
  i32 counted;
  const char* told = "";
};

TEST_F(Uart, ReadsUpToTheTerminatorOrTheRoom) {
  tty_open();
  const char *too_many = "uart_read_buf too more !!!!!\n", *silence = "uart_recive timeout 11 \n";
  const ReplyRow rows[] = {
      {"whole", uart_read_buf, 1000, {5, 6, 7, 0xFF, 9}, {5, 6, 7, 0xFF}, 3},
      {"only a terminator", uart_read_buf, 1000, {0xFF}, {0xFF}, 0},
      {"maximum first", uart_read_buf, 3, {5, 6, 7, 8, 0xFF}, {5, 6, 7}, 3},
      {"maximum 0", uart_read_buf, 0, {5}, {}, 0},
      {"maximum negative", uart_read_buf, -1, {5}, {}, 0},
      {"60 bytes", uart_read_buf, 1000, counted(60), counted(51), 51, too_many},
      {"60 bytes, maximum 51", uart_read_buf, 51, counted(60), counted(51), 51, too_many},
      {"60 bytes, maximum 50", uart_read_buf, 50, counted(60), counted(50), 50},
      {"silence", uart_read_buf, 1000, {}, {}, 0, silence},
      {"worker", read_by_worker, 0, {0x90, 0x41, 0xFF, 1}, {0x90, 0x41, 0xFF}, 3},
      {"worker, 60 bytes", read_by_worker, 0, counted(60), counted(16), 16},
      {"worker, silence", read_by_worker, 0, {}, {}, 0, silence},
  };
  for (const ReplyRow& row : rows) {
    SCOPED_TRACE(row.name);
    deliver(row.line);
    Bytes buffer(100, 0xEE), expected(100, 0xEE);
    std::copy(row.stored.begin(), row.stored.end(), expected.begin());
    i32 result = -1;
    EXPECT_EQ(printed_by([&] { result = row.read(buffer.data(), row.maximum); }), row.told);
    EXPECT_EQ(result, row.counted);
    EXPECT_EQ(buffer, expected);
    EXPECT_EQ(waiting(), static_cast<int>(row.line.size() - row.stored.size()));
    discard();
  }
  EXPECT_EQ(sim::sleep_count().calls, 3u) << "the worker's turns";
  EXPECT_EQ(sim::sleep_count().microseconds, 30000u);
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
  while (!exchange.read_done) usleep(100);
  EXPECT_EQ(exchange.read_length, 0);
  deliver({0x90, 0xFF});
  request({0x81, 0x09, 0xFF});
  while (!exchange.read_done) usleep(100);
  EXPECT_EQ(exchange.read_length, 2);
  deliver({5});
  request({0x88});
  while (waiting() > 0) usleep(100);
  EXPECT_TRUE(worker.cancel_and_join());
  EXPECT_EQ(exchange.read_done, 0);
}

}  // namespace
