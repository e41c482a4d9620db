#include "sim/usb_pcap.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <linux/usb/video.h>

#include <cstdio>

#include "sim/host_controls.h"
#include "sim/run.h"

namespace {

/// tshark's output about a capture; the test has failed when it could not run.
std::string tshark(const std::string& capture, const std::string& options) {
  std::FILE* pipe = popen(("tshark -r " + capture + ' ' + options + " 2>/dev/null").c_str(), "r");
  std::string text;
  for (int c; (c = std::fgetc(pipe)) != EOF;) text += static_cast<char>(c);
  EXPECT_EQ(pclose(pipe), 0) << "tshark is missing or failed; the packages of tools/packages.txt are needed";
  return text;
}

sim::Exchange exchange(u8 request, u8 interface, u8 entity, u8 selector, std::vector<u8> data) {
  sim::Exchange made{.setup = sim::class_request(request, interface, entity, selector, data.size())};
  made.data = std::move(data);
  return made;
}

TEST(UsbPcapTest, EveryRequestIsReadByTheVideoDissector) {
  const sim::Run run;
  const std::string path = sim::run_root() + "/conversation.pcap";
  std::vector<sim::Exchange> exchanges = {
      exchange(UVC_SET_CUR, 0, 2, UVC_PU_BRIGHTNESS_CONTROL, {15, 0}),
      exchange(UVC_GET_MAX, 0, 2, UVC_PU_WHITE_BALANCE_TEMPERATURE_CONTROL, {0x10, 0x27}),
      exchange(UVC_GET_LEN, 0, 1, UVC_CT_PANTILT_ABSOLUTE_CONTROL, {8, 0}),
      exchange(UVC_GET_INFO, 0, 1, UVC_CT_ZOOM_RELATIVE_CONTROL, {3}),
      exchange(UVC_SET_CUR, 0, 3, 24, {1}),
      exchange(UVC_SET_CUR, 1, 0, UVC_VS_COMMIT_CONTROL, std::vector<u8>(26, 2)),
      exchange(UVC_GET_CUR, 0, 2, UVC_PU_GAIN_CONTROL, {}),
      exchange(UVC_GET_CUR, 0, 2, UVC_PU_HUE_CONTROL, {}),
  };
  exchanges[1].at_ms = 1500;
  exchanges[1].answer_ms = 2.5;
  exchanges[6].stalled = exchanges[7].stalled = exchanges[7].timed_out = true;
  ASSERT_TRUE(sim::write_pcap(path, exchanges));

  std::string fields = "-T fields -E separator=,";
  for (const char* field :
       {"frame.time_epoch", "_ws.col.Info", "usb.urb_status", "usbvideo.control.value.cur",
        "usbvideo.control.value.max", "usbvideo.control.len", "usbvideo.control.info", "usb.idVendor",
        "usbvideo.extension.numControls", "_ws.expert.message"})
    fields += std::string(" -e ") + field;
  EXPECT_EQ(tshark(path, fields), R"(0.000000000,GET DESCRIPTOR Request DEVICE,-115,,,,,,,
0.000000000,GET DESCRIPTOR Response DEVICE,0,,,,,0x1d6b,,
0.000000000,GET DESCRIPTOR Request CONFIGURATION,-115,,,,,,,
0.000000000,GET DESCRIPTOR Response CONFIGURATION,0,,,,,,,
0.000000000,GET DESCRIPTOR Request CONFIGURATION,-115,,,,,,,
0.000000000,GET DESCRIPTOR Response CONFIGURATION,0,,,,,,28,
0.000000000,SET CONFIGURATION Request,-115,,,,,,,
0.000000000,SET CONFIGURATION Response,0,,,,,,,
0.000000000,SET CUR Request  [Brightness],-115,15,,,,,,
0.000000000,SET CUR Response [Brightness],0,,,,,,,
1.500000000,GET MAX Request  [White Balance Temperature],-115,,,,,,,
1.502500000,GET MAX Response [White Balance Temperature],0,,10000,,,,,
0.000000000,GET LEN Request  [PanTilt (Absolute)],-115,,,,,,,
0.000000000,GET LEN Response [PanTilt (Absolute)],0,,,8,,,,
0.000000000,GET INFO Request  [Zoom (Relative)],-115,,,,,,,
0.000000000,GET INFO Response [Zoom (Relative)],0,,,,0x03,,,
0.000000000,SET CUR Request  [Unit 3 control 0x18],-115,1,,,,,,
0.000000000,SET CUR Response [Unit 3 control 0x18],0,,,,,,,
0.000000000,SET CUR Request  [Interface 1 control 0x2],-115,,,,,,,
0.000000000,SET CUR Response [Interface 1 control 0x2],0,,,,,,,
0.000000000,GET CUR Request  [Gain],-115,,,,,,,
0.000000000,GET CUR Response [Gain],-32,,,,,,,
0.000000000,GET CUR Request  [Hue],-115,,,,,,,
0.000000000,GET CUR Response [Hue],-2,,,,,,,
)");
}

}  // namespace
