// The device comes to a host and leaves it with the cable.
#include "sim/usbip/attachment.h"

#include <gtest/gtest.h>
#include <netinet/in.h>

#include "sim/usbip/messages.h"
#include "tests/sim/usbip/urb_host.h"

namespace {

using namespace std::chrono_literals;

class Device : public sim::UrbDevice {
 public:
  sim::ControlOutcome control(const usb_ctrlrequest&, std::span<const u8>) override { return {}; }
  std::size_t fill(std::span<sim::IsoPacket>, std::span<u8>) override { return 0; }
  void disconnect() override {}
};

// Returns a host with the camera; nothing if it was refused.
std::unique_ptr<UrbHost> import(u16 port) {
  const int socket = ::socket(AF_INET, SOCK_STREAM, 0);
  const sockaddr_in to{
      .sin_family = AF_INET, .sin_port = htons(port), .sin_addr = {htonl(INADDR_LOOPBACK)}, .sin_zero = {}};
  EXPECT_EQ(connect(socket, reinterpret_cast<const sockaddr*>(&to), sizeof(to)), 0);
  auto host = std::make_unique<UrbHost>(socket);
  std::vector<u8> wish{1, 0x11, 0x80, 3, 0, 0, 0, 0, '1', '-', '1'};
  wish.resize(sim::kWishSize + sim::kBusIdSize);
  host->send_bytes(wish);
  u8 answer[8 + 312];
  return recv(socket, answer, sizeof(answer), MSG_WAITALL) == sizeof(answer) ? std::move(host) : nullptr;
}

// The camera is free again a moment after a host has let go.
std::unique_ptr<UrbHost> import_in_time(u16 port) {
  std::unique_ptr<UrbHost> host;
  for (int i = 0; i < 2000 && !host; ++i) {
    std::this_thread::sleep_for(10ms);
    host = import(port);
  }
  return host;
}

TEST(AttachmentTest, HostHasTheDeviceWhileTheCableIsIn) {
  Device device;
  std::atomic<bool> present = false;
  const sim::Attachment attachment(device, {.address = "127.0.0.1", .port = 0},
                                   [&] { return present.load(); });
  ASSERT_EQ(attachment.error(), "");
  EXPECT_FALSE(import(attachment.port()));
  present = true;
  auto host = import(attachment.port());
  ASSERT_TRUE(host);
  EXPECT_TRUE(host->answer_to(host->control({})));
  EXPECT_TRUE(attachment.connected());
  EXPECT_FALSE(import(attachment.port())) << "another host has it";
  present = false;
  EXPECT_FALSE(host->next()) << "the cable was pulled";
  EXPECT_FALSE(import(attachment.port()));
  present = true;
  host.reset();
  host = import_in_time(attachment.port());
  EXPECT_TRUE(host);
  host.reset();
  EXPECT_TRUE(import_in_time(attachment.port()));
}

}  // namespace
