#include "sim/conversation.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <linux/usb/video.h>

#include <mutex>

#include "sim/run.h"
#include "tests/gadget.h"

namespace {

using namespace std::chrono_literals;
using testing::ElementsAre;

constexpr auto kWork = 60ms;  ///< of every data stage
constexpr double kWorkMs = 60;

/// A service and its server in a few lines: a data stage takes time, and the server then hears its first
/// byte.
class ConversationTest : public testing::Test {
 protected:
  ConversationTest() {
    EXPECT_EQ(sys::system("insmod /opt/vcam/ko/extdrv/g_webcam.ko"), 0);
    EXPECT_TRUE(gadget.open() && gadget.start());
    service.emplace(gadget, [this](const v4l2_event& event) { serve(event); });
  }
  void serve(const v4l2_event& event) {
    if (event.type == UVC_EVENT_SETUP) {
      gadget.respond(2, 7);
    } else if (event.type == UVC_EVENT_DATA) {
      std::this_thread::sleep_for(kWork);
      server_hears("set " + std::to_string(event.u.data[4]));
    }
  }
  void server_hears(std::string line) {
    const std::lock_guard guard(lock);
    received.push_back(std::move(line));
  }
  sim::ControlAnswer brightness(u8 request, std::vector<u8> data) {
    return conversation.control(sim::class_request(request, 0, 2, UVC_PU_BRIGHTNESS_CONTROL, 2), data);
  }

  sim::Run run;
  Gadget gadget;
  sim::NodeHost node;
  std::mutex lock;
  std::vector<std::string> received{"before all requests"};
  sim::Conversation conversation{node, [this](std::size_t from) {
                                   const std::lock_guard guard(lock);
                                   return std::vector(received.begin() + static_cast<long>(from),
                                                      received.end());
                                 }};
  std::optional<Answering> service;
};

TEST_F(ConversationTest, ASetReturnsWhenItsDataStageIsServedAndKeepsWhatTheServerHeard) {
  EXPECT_FALSE(brightness(UVC_SET_CUR, {15, 0}).stalled);
  EXPECT_THAT(received, testing::SizeIs(2)) << "control() returned before the data stage was served";
  server_hears("late");
  EXPECT_THAT(brightness(UVC_GET_CUR, {}).data, ElementsAre(7, 8));

  const auto exchanges = conversation.exchanges();
  ASSERT_EQ(exchanges.size(), 2u);
  EXPECT_THAT(exchanges[0].server, ElementsAre("set 15", "late"))
      << "nothing from before, all until the next";
  EXPECT_THAT(exchanges[0].data, ElementsAre(15, 0));
  EXPECT_GE(exchanges[0].served_ms, kWorkMs);
  EXPECT_LT(exchanges[0].answer_ms, exchanges[0].served_ms);
  EXPECT_THAT(exchanges[1].server, testing::IsEmpty());
  EXPECT_THAT(exchanges[1].data, ElementsAre(7, 8));
  EXPECT_GE(exchanges[1].at_ms, exchanges[0].at_ms + exchanges[0].served_ms);
}

TEST(DescribeTest, OneLineAnExchange) {
  const std::vector<u8> probe{1, 0, 2, 2, 0x15, 0x16, 5, 0, 0, 0, 0, 0, 0,
                              0, 0, 0, 0, 0,    0,    0, 0, 0, 0, 0, 0, 0};
  const auto exchange = [](u8 request, u8 interface, u8 entity, u8 selector, std::vector<u8> data) {
    sim::Exchange made{.setup = sim::class_request(request, interface, entity, selector, data.size())};
    made.data = std::move(data);
    return made;
  };
  sim::Exchange whole = exchange(UVC_SET_CUR, 0, 2, UVC_PU_BRIGHTNESS_CONTROL, {15, 0});
  whole.at_ms = 12345;
  whole.answer_ms = 0.31;
  whole.served_ms = 1.625;
  whole.server = {"sys 39 81 FF -> 90 41 FF", "velto 12"};
  EXPECT_EQ(
      sim::describe(whole),
      "  12.345  PU  SET_CUR   brightness = 15                                  ok         0.31    1.62 ms  "
      "[0F 00] | sys 39 81 FF -> 90 41 FF | velto 12");
  sim::Exchange strange = exchange(0x42, 0, 9, 2, {});
  strange.stalled = strange.timed_out = true;
  EXPECT_EQ(
      sim::describe(strange),
      "   0.000  --  type 0x21 request 0x42 value 0x0200 index 0x0900 length 0  timeout    0.00       - ms");

  const struct {
    sim::Exchange exchange;
    const char* part;
  } rows[] = {
      {exchange(UVC_SET_CUR, 1, 0, UVC_VS_COMMIT_CONTROL, probe), "commit = H264 1280x720, 30 frames/s "},
      {exchange(UVC_GET_LEN, 1, 0, UVC_VS_PROBE_CONTROL, {26, 0}), "GET_LEN   probe = 26 "},
      {exchange(UVC_GET_CUR, 0, 1, UVC_CT_PANTILT_ABSOLUTE_CONTROL, {0x60, 0xA9, 0xF6, 0xFF, 16, 14, 0, 0}),
       "CT  GET_CUR   pan_absolute = -612000, tilt_absolute = 3600 "},
      {exchange(UVC_GET_INFO, 0, 1, UVC_CT_PANTILT_RELATIVE_CONTROL, {3}), "pan_speed, tilt_speed = 3 "},
  };
  for (const auto& [made, part] : rows) EXPECT_THAT(sim::describe(made), testing::HasSubstr(part));
}

}  // namespace
