#include "sim/usb_host.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <linux/usb/video.h>

#include <cstring>
#include <optional>

#include "sim/run.h"
#include "tests/gadget.h"

using testing::HasSubstr;
using namespace std::chrono_literals;

namespace {

/// One deviation from a right answer: a byte of the answer to a GET request.
struct Deviation {
  u8 request;
  int byte;
  u8 value;
  bool stall = false;
};

constexpr sim::StreamChoice kChoice{sim::StreamFormat::kH265, {1600, 1200}, 25};

/// A camera that grants every probe, except for one deviation.
class FakeCamera {
 public:
  explicit FakeCamera(const Deviation& deviation) : deviation_(deviation) {
    EXPECT_EQ(sys::system("insmod /opt/vcam/ko/extdrv/g_webcam.ko"), 0);
    EXPECT_TRUE(gadget_.open() && gadget_.start());
    put_le32(&probe_[18], 1000);
    service_.emplace(gadget_, [this](const v4l2_event& event) { serve(event); });
  }
  ~FakeCamera() {
    service_.reset();
    sys::close(gadget_.fd);
  }

 private:
  void serve(const v4l2_event& event) {
    if (event.type == UVC_EVENT_SETUP) answer(event);
    if (event.type == UVC_EVENT_DATA) std::memcpy(probe_, event.u.data + sizeof(i32), 18);
  }
  void answer(const v4l2_event& event) {
    std::memcpy(&setup_, event.u.data, sizeof setup_);
    UvcRequestData response{.length = setup_.wLength, .data = {}};
    std::memcpy(response.data, probe_, sizeof probe_);
    if (setup_.bRequest == UVC_GET_LEN) put_le16(response.data, sizeof probe_);
    if (setup_.bRequest == UVC_GET_INFO) response.data[0] = 3;
    if (setup_.bRequest == deviation_.request) {
      response.data[deviation_.byte] = deviation_.value;
      if (deviation_.stall) response.length = -1;
    }
    EXPECT_EQ(gadget_.call(UVCIOC_SEND_RESPONSE, &response), 0);
  }

  const Deviation deviation_;
  Gadget gadget_;
  u8 probe_[26] = {};
  usb_ctrlrequest setup_{};
  std::optional<Answering> service_;
};

/// The camera, plugged in.
struct Bus {
  explicit Bus(const Deviation& deviation) : camera(deviation) {
    EXPECT_TRUE(node.wait_for_device(5s));
    host.replug();
  }
  sim::Run run;
  FakeCamera camera;
  sim::NodeHost node;
  sim::Conversation conversation{node, {}};
  sim::UsbHost host{node, conversation, false};
};

}  // namespace

TEST(UsbHostTest, NamesWhatIsWrongWithACamerasAnswers) {
  struct {
    Deviation deviation;
    const char* error;
  } const cameras[] = {
      {{UVC_GET_LEN, 0, 34}, "GET_LEN of probe is not 26"},
      {{UVC_GET_INFO, 0, 1}, "GET_INFO of probe is not 3"},
      {{UVC_GET_DEF, 0, 0, true}, "GET_DEF of probe stalled"},
      {{UVC_GET_MAX, 0, 0, true}, "GET_MAX of probe stalled"},
      {{UVC_GET_CUR, 2, 3}, "another format"},
      {{UVC_GET_CUR, 3, 9}, "another format"},
      {{UVC_GET_CUR, 7, 1}, "another format"},
  };
  for (const auto& [deviation, error] : cameras) {
    Bus bus(deviation);
    EXPECT_FALSE(bus.host.enumerate() && bus.host.start(kChoice)) << error;
    EXPECT_THAT(bus.host.error(), HasSubstr(error));
  }
}
