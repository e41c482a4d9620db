#include "visca/visca.h"

#include <fcntl.h>
#include <pthread.h>
#include <sys/ioctl.h>
#include <termios.h>

#include <algorithm>

#include "common/cancel.h"
#include "ipc/VeltoDrvMsg.h"
#include "platform/sys.h"
#include "support/print.h"

constexpr char kPrintFile[] = "visca.c";

namespace {

constexpr char kLine[] = "/dev/ttyAMA2";
constexpr u8 kTerminator = 0xFF;
// How often the worker and the direct readers look for a first byte.
constexpr i32 kFramePolls = 2002;
constexpr i32 kReplyPolls = 5002;
constexpr i32 kReplyAttempts = 1000;
constexpr useconds_t kPause = 10'000;

enum Motion : i32 { kStop, kPanFirst, kPanSecond, kTiltFirst, kTiltSecond };

Word uart_fd{-1};

i32 move(Motion motion, i32 on) { return VeltoPtzMotion(on ? motion : kStop); }

// VMIN and VTIME stay as they are.
void make_raw_115200_8n1(termios& settings) {
  cfsetispeed(&settings, B115200);
  cfsetospeed(&settings, B115200);
  settings.c_iflag = 0;
  settings.c_oflag &= ~OPOST;
  settings.c_cflag &= ~(CSIZE | CSTOPB | PARENB | CRTSCTS);
  settings.c_cflag |= CS8;
  settings.c_lflag &= ~(ICANON | ECHO | ECHOE | ISIG);
}

// Deliberate: descriptor 0 is no line.
bool line_is_open() { return uart_fd > 0; }

bool bytes_wait(i32 polls) {
  i32 waiting = 0;
  for (i32 i = 0; i < polls && waiting <= 0; ++i) sys::ioctl(uart_fd, FIONREAD, &waiting);
  return waiting > 0;
}

bool read_byte(u8& byte) {
  CancelPoint here;
  return sys::read(uart_fd, &byte, 1) == 1;
}

bool write_whole(const u8* bytes, i32 length) {
  CancelPoint here;
  return sys::write(uart_fd, bytes, static_cast<size_t>(length)) >= length;
}

struct ReplyTexts {
  const char *silent, *too_long, *out_of_attempts;
};

// Deliberate: a failed read counts its byte nonetheless, as what was in its place. So each attempt ends the
// reply or counts, and the room is used up before the attempts are.
i32 read_reply(u8* to, i32 maximum, const ReplyTexts& texts) {
  if (!bytes_wait(kReplyPolls)) {
    PRINT_INFO("%s", texts.silent);
    return 0;
  }
  i32 count = 0;
  for (i32 attempt = 0; attempt < kReplyAttempts; ++attempt) {
    if (!read_byte(to[count])) PRINT_INFO("uart_read err\n");
    if (to[count] == kTerminator) return count;
    if (++count == kUartReplyRoom) {
      PRINT_INFO("%s", texts.too_long);
      return count;
    }
    if (count == maximum) return count;
  }
  PRINT_INFO("%s", texts.out_of_attempts);
  return count;
}

i32 read_frame(u8 (&to)[kUartFrameRoom]) {
  if (!bytes_wait(kFramePolls)) {
    PRINT_INFO("uart_recive timeout 11 \n");
    return 0;
  }
  for (i32 count = 0; count < kUartFrameRoom; ++count) {
    if (!read_byte(to[count])) {
      PRINT_INFO("uart_read err\n");
      return count;
    }
    if (to[count] == kTerminator) return count + 1;
  }
  return kUartFrameRoom;
}

void serve_write(UartExchange& exchange) {
  exchange.write_requested = 0;
  if (exchange.write_length <= kUartTransmitRoom)
    uart_write_buf(exchange.transmit, exchange.write_length);
  else
    PRINT_INFO("uart_write_buf error\n");
}

void serve_read(UartExchange& exchange) {
  exchange.read_requested = 0;
  exchange.read_length = read_frame(exchange.receive);
  exchange.read_done = 1;
}

}  // namespace

i32 ptz_notify(i32 value) { return VeltoPtzNotify(value); }

i32 ptz_mode(i32 code) {
  if (code == 1) return VeltoPtzMode(2);
  return VeltoPtzMode(code == 0xFF ? 1 : 0);
}

i32 ptz_pan(i32 selector, i32 on) { return move(selector == 1 ? kPanFirst : kPanSecond, on); }
i32 ptz_tilt(i32 selector, i32 on) { return move(selector == 1 ? kTiltFirst : kTiltSecond, on); }
i32 ptz_stop() { return VeltoPtzMotion(kStop); }

// The first of the three words has no meaning.
i32 ptz_set_pos(i32 pan, i32 tilt) { return VeltoPtzSetPosition({{0, pan, tilt}}); }

u32 get_apantilt() {
  VeltoThreeWords position = {};
  if (VeltoPtzGetAbsolute(position) == -1) {
    PRINT_INFO("Dis params get failed!\n");
    return 0;
  }
  return static_cast<u32>(position.words[1]) << 16 | static_cast<u32>(position.words[2]);
}

u32 ptz_get_pos() {
  i32 position = 0;
  return VeltoPtzGetPosition(position) == -1 ? 0 : static_cast<u32>(position);
}

void tty_open() {
  const int fd = sys::open(kLine, O_RDWR | O_NOCTTY | O_NONBLOCK | O_CLOEXEC);
  if (fd >= 0) {
    fcntl(fd, F_SETFL, 0);  // reads block from here on
    termios settings = {};
    tcgetattr(fd, &settings);
    make_raw_115200_8n1(settings);
    tcsetattr(fd, TCSANOW, &settings);
    PRINT_INFO("uart fd %d\n", fd);
  }
  uart_fd = fd;
}

i32 uart_write_buf(const u8* buffer, i32 length) {
  if (!line_is_open()) return -1;
  if (length >= 0 && write_whole(buffer, length)) return 0;
  PRINT_INFO("uart_write_buf error\n");
  return -1;
}

i32 uart_read_buf(u8* buffer, i32 maximum) {
  static constexpr ReplyTexts kTexts = {"uart_recive timeout 11 \n", "uart_read_buf too more !!!!!\n",
                                        "uart_recive timeout 22\n"};
  return line_is_open() && maximum >= 1 ? read_reply(buffer, maximum, kTexts) : 0;
}

// Deliberate: the area keeps its bytes from reply to reply, for the reads that fail.
void uart_ack(u8 (&buffer)[kUartReplyRoom]) {
  static constexpr ReplyTexts kTexts = {"uart_recive timeout 11 ack \n", "uart_ack too more !!!!!\n",
                                        "uart_recive timeout 22 ack\n"};
  static u8 area[kUartReplyRoom];
  std::copy_n(area, read_reply(area, kUartReplyRoom, kTexts), buffer);
}

void uart_turn(UartExchange& exchange) {
  // The read request is looked at first: whoever sees it also sees the write request that came before it.
  const bool read_requested = exchange.read_requested;
  if (exchange.write_requested) serve_write(exchange);
  if (read_requested) serve_read(exchange);
  CancelPoint here;
  sys::usleep(kPause);
}

void* uart_pthread(void* exchange) {
  int former_state;
  pthread_setcancelstate(PTHREAD_CANCEL_DISABLE, &former_state);
  tty_open();
  for (;;) uart_turn(*static_cast<UartExchange*>(exchange));
}
