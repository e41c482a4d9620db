// The extension unit: what every selector answers, and what the host can set off with it.
#include "uvc/uvc_vendor.h"

#include <fcntl.h>
#include <gmock/gmock.h>
#include <sys/wait.h>

#include <array>

#include "support/print.h"
#include "support/support.h"
#include "tests/printed_by.h"
#include "tests/uvc/uvc_fixture.h"

namespace {

class VendorTest : public UvcTest {
 protected:
  std::string get(u8 request, u8 selector, u16 length) {
    std::memset(uvc_resp_buf, 0xCC, sizeof(uvc_resp_buf));
    uvc_request_error_code = 77;
    return hex(setup(request, selector, 3, 0, length));
  }
  void set(u8 selector, std::vector<u8> bytes) {
    setup(UVC_SET_CUR, selector, 3, 0, static_cast<u16>(bytes.size()));
    uvc_request_error_code = 77;
    data(bytes);
    EXPECT_EQ(uvc_request_error_code, kNoError);
  }
  // Commands and first words since the last call: "12:2 10:2 ".
  std::string sent_commands() {
    VeltoMsgBuf message;
    std::string text;
    while (msgrcv(msgget(sim::run_key(kVeltoMsgKey), 0), &message, kVeltoMsgPayload, 0, IPC_NOWAIT) >= 0)
      text +=
          std::to_string(message.cmd) + ":" + std::to_string(get_le32(message.payload + kVeltoWords)) + " ";
    return text;
  }
};

TEST_F(VendorTest, SelectorsWithoutAMeaningTakeTheirByteAndDoNothing) {
  print_level = 2;
  for (int selector = 0; selector < 256; ++selector) {
    const bool means_something = selector == 1 || selector == 9 || selector == 24 || selector == 25;
    if (means_something) continue;
    SCOPED_TRACE(selector);
    set(static_cast<u8>(selector), {0});
    EXPECT_EQ(get(UVC_GET_INFO, static_cast<u8>(selector), 2), "03 cc");
    EXPECT_EQ(uvc_request_error_code, kInvalidControl);
    if (selector > 28) {
      EXPECT_EQ(get(UVC_GET_MIN, static_cast<u8>(selector), 1), "cc");
    }
  }
  EXPECT_EQ(sent_commands(), "");
  EXPECT_EQ(run.shell_log(), "insmod /opt/vcam/ko/extdrv/g_webcam.ko\n");
}

TEST_F(VendorTest, SaysWhatIsAsked) {
  const struct {
    u8 request, selector;
    const char* text;
  } rows[] = {
      {UVC_GET_MIN, 0, "get extern 1 mini\n"},
      {UVC_GET_MAX, 2, "get exter2 max\n"},
      {UVC_GET_LEN, 9, "get update ctrl len\n"},
      {UVC_GET_INFO, 255, "get extern info ff\n"},
      {UVC_GET_LEN, 4, ""},
  };
  for (const auto& row : rows)
    EXPECT_EQ(printed_by([&] { setup(row.request, row.selector, 3, 0, 2); }), row.text);
}

TEST_F(VendorTest, VersionRecordComesFromTheBuild) {
  const struct {
    const char *version, *date, *record;
  } rows[] = {
      {" 0x1aF c-9", "1999-12-31", "01 0a 0f 0c 07 cf 0c 1f 0a 0f 0c 07 cf 0c 1f 0a 0f 0c 07 cf 0c 1f"},
      {"1x23", "20", "01 00 00 01 00 14 00 00 00 00 01 00 14 00 00 00 00 01 00 14 00 00"},
      {"", "", "01 00 00 00 00 00 00 00 00 00 00 00 00 00 00 00 00 00 00 00 00 00"},
  };
  for (const auto& row : rows) {
    uvc_vendor_init(row.version, row.date);
    EXPECT_EQ(get(UVC_GET_CUR, 9, 22), row.record);
  }
}

TEST_F(VendorTest, TuningReachesTheEncoderOnlyWhileItStreams) {
  print_level = 2;
  for (const i32 on : {0, 1}) {
    uvc_stream_state.stream_on = on;
    for (const i32 format : {kFormatMjpeg, kFormatH264, kFormatYuy2, kFormatH265}) {
      SCOPED_TRACE(format * 10 + on);
      cur_format = format;
      const bool told = on && (format == kFormatH264 || format == kFormatH265);
      set(3, {static_cast<u8>(100 + format), 0, 0});
      EXPECT_EQ(sent_commands(), told ? "10:2 " : "");
      set(3, {0, 0, 0});
      EXPECT_EQ(sent_commands(), told ? "12:2 " : "");
      set(15, {9, static_cast<u8>(format), 9});
      EXPECT_EQ(sent_commands(), told ? "10:2 " : "");
      for (int mode = 0; mode < 4; ++mode) {
        EXPECT_EQ(h264_rate_control.param[mode][0], 100 + format);
        EXPECT_EQ(h265_rate_control.param[mode][0], 100 + format);
      }
      EXPECT_EQ(h264_rate_control.common, format);
      EXPECT_EQ(h265_rate_control.common, format);
      EXPECT_EQ(get(UVC_GET_CUR, 3, 3), format == kFormatH264 ? "66 00 00" : "01 00 00");
      EXPECT_EQ(get(UVC_GET_CUR, 15, 3), format == kFormatH264   ? "00 02 00"
                                         : format == kFormatH265 ? "00 04 00"
                                                                 : "00 00 00");
    }
  }
  set(1, {7});
  EXPECT_EQ(sent_commands(), "12:7 ");
  EXPECT_EQ(get(UVC_GET_CUR, 0, 1), "07");
}

struct Block {
  const char* name;
  i32 format;
  std::vector<u8> block;
  bool taken;
};

TEST_F(VendorTest, RateControlReadsAsItIsSetAndRefusesWhatDoesNotFit) {
  print_level = 2;
  uvc_stream_state.stream_on = 1;
  const Block blocks[] = {
      {"MJPEG 1", kFormatMjpeg, {1, 1, 0x34, 0x12, 0, 100, 1, 0}, true},
      {"MJPEG with an interval", kFormatMjpeg, {1, 0, 0x34, 0x12, 9, 0, 0, 0}, false},
      {"H.264 0", kFormatH264, {0, 0, 0xFF, 0xFF, 255, 0, 0, 0}, true},
      {"H.264 1", kFormatH264, {0, 1, 0x00, 0x30, 60, 10, 40, 0}, true},
      {"H.264 255", kFormatH264, {0, 255, 1, 0, 1, 0, 0, 0}, false},
      {"H.265 2 with three quantisers", kFormatH265, {2, 2, 0, 0, 60, 20, 51, 1}, false},
      {"short", kFormatH265, {2, 0, 0, 1}, false},
  };
  for (const Block& row : blocks) {
    SCOPED_TRACE(row.name);
    cur_format = row.format;
    const std::string before = get(UVC_GET_CUR, 16, 8);
    set(16, row.block);
    EXPECT_EQ(sent_commands(), row.taken ? "10:2 " : "");
    EXPECT_EQ(get(UVC_GET_CUR, 16, 8), row.taken ? hex(row.block) : before);
  }
  cur_format = kFormatH264;
  set(16, {0, 1, 0x00, 0x20, 50, 11, 41, 0});
  EXPECT_EQ(sent_settings(), "2 1 1920 1080 30 0 0 1 1 50 8192 11 41\n");
  uvc_stream_state.stream_on = 0;
  set(16, {0, 0, 0x00, 0x20, 50, 0, 0, 0});
  EXPECT_EQ(sent_settings(), "");
  cur_format = kFormatYuy2;
  EXPECT_EQ(get(UVC_GET_CUR, 16, 8), "03 00 00 00 00 00 00 00");
}

TEST_F(VendorTest, UpdateStartsOncePerRequestAndKeepsTheNodesNumber) {
  const i32 number = uvc_video_fd;
  run.write_file("/opt/base/sys_update", "");
  for (const u8 value : {u8{0}, u8{1}}) {
    // The events no longer arrive: the requests are served without them.
    UvcRequestContext request = {.bRequestType = 0x21,
                                 .bRequest = UVC_SET_CUR,
                                 .wValue = 9 << 8,
                                 .wIndex = 3 << 8,
                                 .wLength = 1,
                                 .data = {}};
    uvc_resp_buf[0] = value;
    const auto update = [&] { EXPECT_EQ(uvc_setcur(&request), kNoError); };
    EXPECT_THAT(printed_by(update), testing::StartsWith("System update!\n"));
    EXPECT_EQ(uvc_video_fd, number);
    EXPECT_TRUE(fcntl(number, F_GETFD) & FD_CLOEXEC);
    EXPECT_NE(open("/", O_RDONLY | O_CLOEXEC), number);
    v4l2_event event;
    EXPECT_LT(sys::ioctl(number, VIDIOC_DQEVENT, &event), 0);
  }
  EXPECT_EQ(run.shell_log(),
            "insmod /opt/vcam/ko/extdrv/g_webcam.ko\n/opt/base/sys_update &\n/opt/base/sys_update &\n");
}

TEST_F(VendorTest, RebootAndPrivateStartWantTheirByte) {
  const std::size_t before = host.call_log().size();
  for (const u8 other : {u8{2}, u8{255}}) {
    set(5, {other});
    set(24, {other});
  }
  set(25, {0});  // nobody to tell yet
  EXPECT_EQ(host.call_log().find("PRIVATE", before), std::string::npos);
  EXPECT_EQ(run.shell_log(), "insmod /opt/vcam/ko/extdrv/g_webcam.ko\n");
  set(24, {1});
  EXPECT_THAT(run.shell_log(), testing::EndsWith("\nreboot\n"));
  EXPECT_EQ(waitpid(-1, nullptr, WNOHANG), -1) << "a child is left";
}

}  // namespace
