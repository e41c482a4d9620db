// The camera as a USB device, with the real service behind it.
#include "sim/usbip/gadget.h"

#include <gmock/gmock.h>
#include <linux/usb/video.h>
#include <sys/socket.h>

#include <cstdio>
#include <filesystem>
#include <optional>

#include "sim/app/camera.h"
#include "sim/app/options.h"
#include "sim/app/service_process.h"
#include "sim/host/host_controls.h"
#include "sim/host/usb_descriptors.h"
#include "tests/sim/usbip/urb_host.h"

namespace {

using namespace std::chrono_literals;
using testing::ElementsAre;

constexpr usb_ctrlrequest kConfigure = {0x00, USB_REQ_SET_CONFIGURATION, 1, 0, 0};
constexpr usb_ctrlrequest kStreamOn = {0x01, USB_REQ_SET_INTERFACE, 1, 1, 0};
constexpr usb_ctrlrequest kStreamOff = {0x01, USB_REQ_SET_INTERFACE, 0, 1, 0};
const auto kGetBrightness = sim::class_request(UVC_GET_CUR, sim::kVideoControlInterface, kProcessingUnit,
                                               UVC_PU_BRIGHTNESS_CONTROL, 2);

class GadgetTest : public testing::Test {
 protected:
  GadgetTest() {
    int ends[2];
    EXPECT_EQ(socketpair(AF_UNIX, SOCK_STREAM, 0, ends), 0);
    EXPECT_TRUE(camera.node.wait_for_device(20s));
    host.emplace(ends[0]);
    connection.emplace(ends[1], gadget);
  }
  ~GadgetTest() override {
    EXPECT_EQ(host->wrong(), "");
    connection.reset();
    service.stop(5);
  }

  std::optional<UrbAnswer> ask(const usb_ctrlrequest& setup, const std::vector<u8>& data = {}) {
    return host->answer_to(host->control(setup, data));
  }
  i32 status_of(const usb_ctrlrequest& setup) {
    const auto answer = ask(setup);
    return answer ? answer->status : 1;
  }
  void commit(u8 format, u8 frame) {
    std::vector<u8> block(26);
    block[2] = format, block[3] = frame;
    put_le32(&block[4], 333333);
    for (const u8 selector : {u8{UVC_VS_PROBE_CONTROL}, u8{UVC_VS_COMMIT_CONTROL}}) {
      const auto answer = ask(
          sim::class_request(UVC_SET_CUR, sim::kVideoStreamingInterface, 0, selector, block.size()), block);
      ASSERT_TRUE(answer && answer->status == 0);
    }
  }
  // Streams until a checker has seen so many frames, as Linux's driver does.
  sim::StreamReport stream(sim::StreamFormat format, FrameSize size, unsigned frames) {
    sim::FrameChecker checker(format, size.width, size.height);
    FrameReader reader;
    for (int i = 0; i < 5; ++i) host->stream(32);
    while (checker.report().frames < frames) {
      const auto answer = host->next();
      if (!answer) break;
      host->stream(32);
      reader.read(*answer, [&](const std::vector<u8>& frame) { checker.feed(frame); });
    }
    return checker.report();
  }

  sim::Options options;
  sim::Camera camera{options};
  sim::Gadget gadget{camera.node, camera.conversation};
  sim::ServiceProcess service{
      {std::filesystem::read_symlink("/proc/self/exe").replace_filename("uvc_gadget_sim")}, stderr, false};
  std::optional<UrbHost> host;
  std::optional<sim::UrbConnection> connection;
};

TEST_F(GadgetTest, IsTheDeviceThatTheDescriptorsTell) {
  const auto device = ask({0x80, USB_REQ_GET_DESCRIPTOR, USB_DT_DEVICE << 8, 0, 64});
  EXPECT_EQ(device->data, sim::device_descriptor());
  EXPECT_EQ(ask({0x80, USB_REQ_GET_DESCRIPTOR, USB_DT_CONFIG << 8, 0, 9})->data.size(), 9u);
  EXPECT_EQ(ask({0x80, USB_REQ_GET_DESCRIPTOR, USB_DT_CONFIG << 8, 0, 4096})->data,
            sim::configuration_descriptor());
  EXPECT_EQ(status_of({0x80, USB_REQ_GET_DESCRIPTOR, USB_DT_STRING << 8, 0, 255}), -EPIPE);
  EXPECT_EQ(status_of(kStreamOn), -EPIPE) << "before it is configured";
  EXPECT_EQ(status_of(kConfigure), 0);
  EXPECT_THAT(ask({0x80, USB_REQ_GET_CONFIGURATION, 0, 0, 1})->data, ElementsAre(1));
  EXPECT_THAT(ask({0x81, USB_REQ_GET_INTERFACE, 0, 1, 1})->data, ElementsAre(0));
  EXPECT_EQ(status_of({0x01, USB_REQ_SET_INTERFACE, 2, 1, 0}), -EPIPE);
  EXPECT_EQ(status_of({0xC0, 1, 0, 0, 4}), -EPIPE) << "a vendor's request";
  EXPECT_THAT(ask(kGetBrightness)->data, ElementsAre(8, 0));
  auto too_long = kGetBrightness;
  too_long.wLength = 65;
  EXPECT_EQ(status_of(too_long), -EPIPE);
}

TEST_F(GadgetTest, StreamsWholeFramesAndStartsAgain) {
  ASSERT_EQ(status_of(kConfigure), 0);
  for (const auto& [format, size, formats_frame] :
       {std::tuple(sim::StreamFormat::kMjpeg, FrameSize{1280, 720}, 2),
        {sim::StreamFormat::kYuy2, {320, 240}, 1}}) {
    commit(static_cast<u8>(format), static_cast<u8>(formats_frame));
    ASSERT_EQ(status_of(kStreamOn), 0);
    ASSERT_TRUE(gadget.stream());
    EXPECT_EQ(gadget.stream()->size, size);
    const sim::StreamReport report = stream(format, size, 15);
    EXPECT_EQ(report.frames, 15u);
    EXPECT_EQ(report.torn + report.lost + report.repeated + report.empty, 0u);
    EXPECT_EQ(status_of(kStreamOff), 0);
    EXPECT_FALSE(gadget.stream());
  }
  EXPECT_GE(gadget.counts().frames, 30u);
}

TEST_F(GadgetTest, ServiceThatDoesNotAnswerLeavesTheHostWaiting) {
  ASSERT_EQ(status_of(kConfigure), 0);
  kill(service.pid(), SIGSTOP);
  const u32 number = host->control(kGetBrightness);
  EXPECT_FALSE(host->next(300ms));
  const u32 request = host->take_back(number);
  const auto taken = host->next();
  ASSERT_TRUE(taken);
  EXPECT_EQ(taken->number, request);
  EXPECT_EQ(taken->status, -ECONNRESET);
  kill(service.pid(), SIGCONT);
  EXPECT_THAT(ask(kGetBrightness)->data, ElementsAre(8, 0));
}

TEST_F(GadgetTest, NextHostFindsTheCameraAsNew) {
  ASSERT_EQ(status_of(kConfigure), 0);
  commit(1, 1);
  ASSERT_EQ(status_of(kStreamOn), 0);
  connection.reset();
  EXPECT_FALSE(gadget.stream());
  int ends[2];
  ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM, 0, ends), 0);
  host.emplace(ends[0]);
  connection.emplace(ends[1], gadget);
  EXPECT_THAT(ask({0x80, USB_REQ_GET_CONFIGURATION, 0, 0, 1})->data, ElementsAre(0));
  ASSERT_EQ(status_of(kConfigure), 0);
  commit(1, 2);
  ASSERT_EQ(status_of(kStreamOn), 0);
  EXPECT_EQ(stream(sim::StreamFormat::kMjpeg, {1280, 720}, 5).frames, 5u);
}

}  // namespace
