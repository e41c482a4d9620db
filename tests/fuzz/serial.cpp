// The controller at the serial line: any bytes, which come in parts, and a line that hangs up.
#include <fcntl.h>
#include <termios.h>

#include <filesystem>
#include <memory>
#include <thread>
#include <vector>

#include "sim/seam/run.h"
#include "support/print.h"
#include "tests/fuzz/fuzz.h"
#include "visca/visca.h"

namespace {

using fuzz::check;

// A line of its own for each input, so that it can hang up.
class Line {
 public:
  explicit Line(const sim::Run& run) {
    grantpt(controller_);
    unlockpt(controller_);
    const std::filesystem::path path = run.path("/dev/ttyAMA2");
    std::filesystem::remove(path);
    std::filesystem::create_symlink(ptsname(controller_), path);
    service_ = dup(controller_);  // the number that the line will have
    close(service_);
    tty_open();
    fcntl(controller_, F_SETFL, O_NONBLOCK);
  }
  ~Line() {
    close(service_);
    hang_up();
  }

  void write(std::span<const u8> bytes) const {
    [[maybe_unused]] const ssize_t written = ::write(controller_, bytes.data(), bytes.size());
  }
  void discard() const {
    u8 bytes[4096];
    while (read(controller_, bytes, sizeof(bytes)) > 0) continue;
    tcflush(service_, TCIFLUSH);
  }
  void hang_up() {
    if (controller_ >= 0) close(controller_);
    controller_ = -1;
  }

 private:
  int controller_ = posix_openpt(O_RDWR | O_NOCTTY | O_CLOEXEC);
  int service_ = -1;
};

void read_reply(i32 maximum) {
  static const fuzz::Guarded memory(kUartReplyRoom);
  const i32 room = std::clamp(maximum, 0, kUartReplyRoom);
  const i32 count = uart_read_buf(memory.lend(static_cast<u32>(room)).data(), maximum);
  check(count >= 0 && count <= room, "a reply has no more bytes than the caller has room for");
}

void acknowledge() {
  struct Area {
    u8 bytes[kUartReplyRoom];
  };
  uart_ack(std::make_unique<Area>()->bytes);
}

void serve(i32 write_length, bool read) {
  const auto exchange = std::make_unique<UartExchange>();
  exchange->write_length = write_length;
  exchange->write_requested = 1;
  exchange->read_requested = read;
  uart_turn(*exchange);
  check(exchange->read_length >= 0 && exchange->read_length <= kUartFrameRoom, "a frame fits its room");
  check(!exchange->write_requested && !exchange->read_requested && exchange->read_done == read,
        "requests are served");
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const u8* bytes, std::size_t size) {
  static const sim::Run run;
  sim::set_sleep_divisor(1'000'000);
  print_level = 4;
  Line line(run);
  fuzz::Input input(bytes, size);
  for (int steps = 0; !input.empty() && steps < 10; ++steps) {
    const u8 kind = input.take<u8>();
    const i32 number = static_cast<i32>(input.number());
    line.write(input.bytes((kind / 8 + 1) % 32));  // without any, the read waits for its first byte
    const auto later = input.bytes(input.take<u8>() % 64);
    if (kind % 8 == 7) line.hang_up();
    std::vector<u8> part(later.begin(), later.end());
    part.resize(part.size() + 60,
                0xFF);  // no read waits for a byte that does not come
    std::thread controller([&] { line.write(part); });
    if (kind % 4 == 0) read_reply(number);
    if (kind % 4 == 1) acknowledge();
    if (kind % 4 == 2) serve(number, true);
    if (kind % 4 == 3) serve(number % 4096 - 1024, number & 1), read_reply(kUartReplyRoom + 1);
    controller.join();
    line.discard();
  }
  return 0;
}
