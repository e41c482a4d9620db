#include "sim/host_controls.h"

#include <gmock/gmock.h>

#include <climits>

#include "tests/gadget.h"
#include "tests/uvc_fixture.h"

namespace {

using testing::ElementsAreArray;

/// Answers each GET with bytes counting from 1 and writes down what crosses the bus.
class HostControlsTest : public testing::Test {
 protected:
  HostControlsTest() {
    EXPECT_EQ(sys::system("insmod /opt/vcam/ko/extdrv/g_webcam.ko"), 0);
    EXPECT_TRUE(gadget.open() && gadget.start());
    service.emplace(gadget, [this](const v4l2_event& event) { serve(event); });
  }
  void serve(const v4l2_event& event) {
    if (event.type == UVC_EVENT_SETUP) {
      log.push_back(hex({event.u.data, sizeof(usb_ctrlrequest)}));
      gadget.respond(length, 1);
    } else if (event.type == UVC_EVENT_DATA) {
      log.back() += " | " + hex({event.u.data + 4, event.u.data[0]});
    }
  }
  std::vector<std::string> take_log() { return std::exchange(log, {}); }

  sim::Run run;
  Gadget gadget;
  sim::NodeHost node;
  sim::Conversation conversation{node, {}};
  std::vector<std::string> log;
  i32 length = 8;
  std::optional<Answering> service;
};

TEST_F(HostControlsTest, SetsSendTheValueAndKeepWhatElseTheControlCarries) {
  const struct {
    const char* name;
    i32 value;
    std::vector<const char*> sent;
  } rows[] = {
      {"brightness", 15, {"21 01 00 02 00 02 02 00 | 0f 00"}},
      {"hue", -2, {"21 01 00 06 00 02 02 00 | fe ff"}},
      {"white_balance_automatic", 1, {"21 01 00 0b 00 02 01 00 | 01"}},
      {"red_balance", 16, {"a1 81 00 0c 00 02 04 00", "21 01 00 0c 00 02 04 00 | 01 02 10 00"}},
      {"pan_absolute",
       -612000,
       {"a1 81 00 0d 00 01 08 00", "21 01 00 0d 00 01 08 00 | 60 a9 f6 ff 05 06 07 08"}},
      {"tilt_absolute",
       3600,
       {"a1 81 00 0d 00 01 08 00", "21 01 00 0d 00 01 08 00 | 01 02 03 04 10 0e 00 00"}},
      {"pan_speed", -5, {"a1 81 00 0e 00 01 04 00", "21 01 00 0e 00 01 04 00 | ff 05 03 04"}},
      {"tilt_speed", 7, {"a1 81 00 0e 00 01 04 00", "21 01 00 0e 00 01 04 00 | 01 02 01 07"}},
      {"zoom_continuous", 0, {"a1 81 00 0c 00 01 03 00", "21 01 00 0c 00 01 03 00 | 00 02 00"}},
      {"zoom_continuous", INT_MIN, {"a1 81 00 0c 00 01 03 00", "21 01 00 0c 00 01 03 00 | ff 02 ff"}},
  };
  for (const auto& [name, value, sent] : rows) {
    EXPECT_TRUE(set_control(conversation, *sim::find_host_control(name), value)) << name;
    EXPECT_THAT(take_log(), ElementsAreArray(sent)) << name;
  }
  EXPECT_EQ(sim::find_host_control("focus_auto"), nullptr);
}

TEST_F(HostControlsTest, GetsTakeTheValueOutOfTheControl) {
  const auto get = [this](const char* name) {
    return get_control(conversation, *sim::find_host_control(name), UVC_GET_MAX);
  };
  EXPECT_EQ(get("tilt_absolute"), 0x08070605);
  EXPECT_EQ(get("red_balance"), 0x0403);
  EXPECT_EQ(get("tilt_speed"), 4);
  EXPECT_EQ(take_log().front(), "a1 83 00 0d 00 01 08 00");
  length = 7;
  EXPECT_EQ(get("pan_absolute"), std::nullopt) << "too few bytes";
  length = -1;
  EXPECT_EQ(get("brightness"), std::nullopt);
  take_log();
  EXPECT_FALSE(set_control(conversation, *sim::find_host_control("pan_absolute"), 0));
  EXPECT_EQ(take_log().size(), 1u) << "what could not be read must not be overwritten";
}

TEST(HostControlValueTest, MotionsAreSignedNumbers) {
  const sim::HostControl& tilt = *sim::find_host_control("tilt_speed");
  const auto value = [&](u8 request, u8 direction, u8 speed) {
    const u8 data[] = {1, 2, direction, speed};
    return sim::value_in(tilt, request, data);
  };
  EXPECT_EQ(value(UVC_GET_CUR, 1, 7), 7);
  EXPECT_EQ(value(UVC_SET_CUR, 255, 7), -7);
  EXPECT_EQ(value(UVC_GET_CUR, 0, 7), 0);
  EXPECT_EQ(value(UVC_GET_MIN, 0, 1), -1);
  EXPECT_EQ(value(UVC_GET_MAX, 0, 7), 7);
}

using HostControlsOfTheServiceTest = UvcTest;
TEST_F(HostControlsOfTheServiceTest, HaveTheLengthsThatTheServiceTells) {
  for (const sim::HostControl& control : sim::host_controls()) {
    const auto get = [&](u8 request, u16 length) {
      return setup(request, control.selector, control.entity, sim::kVideoControlInterface, length);
    };
    const bool component =  // the service tells 2 of these: hosts know better
        control.entity == sim::kProcessingUnit && (control.selector == 12 || control.selector == 13);
    EXPECT_THAT(get(UVC_GET_LEN, 2), testing::ElementsAre(component ? 2 : control.length, 0)) << control.name;
    EXPECT_THAT(get(UVC_GET_INFO, 1), testing::ElementsAre(3)) << control.name;
  }
}

}  // namespace
