#include "uvc/uvc_vendor.h"

#include <cstring>
#include <string_view>

#include "ipc/VeltoDrvMsg.h"
#include "platform/sys.h"
#include "platform/uvc_units.h"
#include "support/print.h"
#include "uvc/uvc_class_encoder.h"
#include "uvc/uvc_gadget_device.h"
#include "uvc/uvc_rate_control.h"
#include "uvc/uvc_state.h"

constexpr char kPrintFile[] = "uvc_vendor.c";

namespace {

constexpr char kUpdateCommand[] = "/opt/base/sys_update &";
constexpr char kRebootCommand[] = "reboot\n";

// Version record.

struct Version {
  u8 record[kVersionRecordSize];
  const char* model_code;
};

constexpr Version kUnknownVersion = {
    {1, 1, 0, 0, 7, 0xE0, 3, 9, 1, 0, 0, 7, 0xE0, 9, 9, 1, 0, 0, 7, 0xE0, 9, 8}, "QZ472913"};
Version build_version;
std::atomic<const Version*> version_info = &kUnknownVersion;

constexpr i32 digit_value(char digit) {
  if (digit >= '0' && digit <= '9') return digit - '0';
  if (digit >= 'a' && digit <= 'f') return digit - 'a' + 10;
  if (digit >= 'A' && digit <= 'F') return digit - 'A' + 10;
  return 16;
}

// Skips blanks, and an x before the first digit other than 0; ends at any other character that is no digit.
u32 parse_number(std::string_view text, u32 base) {
  u32 value = 0;
  for (const char character : text) {
    const bool prefix = base == 16 && value == 0 && (character == 'x' || character == 'X');
    if (character == ' ' || prefix) continue;
    const u32 digit = static_cast<u32>(digit_value(character));
    if (digit >= base) break;
    value = value * base + digit;
  }
  return value;
}

u32 date_field(std::string_view date, std::size_t at) {
  return at < date.size() ? parse_number(date.substr(at), 10) : 0;
}

void start_update() {
  uvc_device_give_up();
  PRINT_INFO("System update!\n");
  sys::launch(kUpdateCommand);
}

UvcStatus get_version(const Control&) {
  Korrindale_fireware_process(1, uvc_resp_buf);
  return kNoError;
}

UvcStatus set_update(const Control&) {
  Korrindale_fireware_process(0, uvc_resp_buf);
  return kNoError;
}

// Encoder tuning.

bool streams_video_codec() {
  return uvc_stream_state.stream_on && (cur_format == kFormatH264 || cur_format == kFormatH265);
}

UvcStatus get_key_frames(const Control&) {
  const u8 answer[3] = {static_cast<u8>(cur_format == kFormatH264 ? get_key_frame_interval() : 1)};
  std::memcpy(uvc_resp_buf, answer, sizeof(answer));
  return kNoError;
}

constexpr i32 kKeyFrameNow = 2;  // value of command 12

// A value of 0 asks for one key frame and changes nothing.
UvcStatus set_key_frames(const Control&) {
  const u8 frames = uvc_resp_buf[0];
  if (frames != 0) store_key_frame_interval(frames);
  if (!streams_video_codec()) return kNoError;
  if (frames != 0)
    refresh_encoder_settings();
  else
    VeltoSend12(kKeyFrameNow);
  return kNoError;
}

u8 common_parameter() {
  if (cur_format == kFormatH264) return static_cast<u8>(h264_rate_control.common);
  if (cur_format == kFormatH265) return static_cast<u8>(h265_rate_control.common);
  return 0;
}

UvcStatus get_common(const Control&) {
  const u8 answer[3] = {0, common_parameter(), 0};
  std::memcpy(uvc_resp_buf, answer, sizeof(answer));
  return kNoError;
}

UvcStatus set_common(const Control&) {
  h265_rate_control.common = uvc_resp_buf[1];
  h264_rate_control.common = uvc_resp_buf[1];
  if (streams_video_codec()) refresh_encoder_settings();
  return kNoError;
}

UvcStatus get_rate_control(const Control&) {
  const RateBlock block = get_rate_block();
  std::memcpy(uvc_resp_buf, block.bytes, sizeof(block.bytes));
  return kNoError;
}

UvcStatus set_rate_control(const Control&) {
  RateBlock block;
  std::memcpy(block.bytes, uvc_resp_buf, sizeof(block.bytes));
  if (store_rate_block(block) && uvc_stream_state.stream_on) refresh_encoder_settings();
  return kNoError;
}

// The other selectors.

u8 extension_value[1];

UvcStatus set_nothing(const Control&) { return kNoError; }

UvcStatus set_extension_value(const Control&) {
  extension_value[0] = uvc_resp_buf[0];
  VeltoSend12(extension_value[0]);
  return kNoError;
}

UvcStatus set_private_start(const Control&) {
  i32 type = V4L2_BUF_TYPE_VIDEO_OUTPUT;
  if (uvc_resp_buf[0] == 1) sys::ioctl(uvc_video_fd, kUvcPrivateStart, &type);
  return kNoError;
}

UvcStatus set_reboot(const Control&) {
  if (uvc_resp_buf[0] == 1) sys::launch(kRebootCommand);
  return kNoError;
}

UvcStatus set_disconnected(const Control&) {
  if (u32* word = usb_disconnect_word.load()) std::atomic_ref<u32>(*word).store(1);
  return kNoError;
}

// The rows.

// Deliberate: the answer is given, yet the status is that of an invalid control.
constexpr Reply kInfo = {.bytes = {kInfoGetSet},
                         .count = 1,
                         .status = kInvalidControl,
                         .message = "get extern info",
                         .names_selector = true};
constexpr Reply kZero = reply_word(0);
constexpr Reply kOne = reply_word(1);

// A control without a meaning of its own: it reads 1.
constexpr Control plain(u8 selector, ControlFunction set_cur = set_nothing) {
  return {.selector = selector, .len = kOne, .info = kInfo, .cur = kOne, .set_cur = set_cur};
}

constexpr Control ranged(Control control, const Reply& min = kZero, const Reply& max = kOne) {
  control.min = control.res = min;
  control.max = control.def = max;
  return control;
}
constexpr Control ranged(u8 selector, ControlFunction set_cur = set_nothing) {
  return ranged(plain(selector, set_cur));
}

constexpr Control extension_control(u8 selector, ControlFunction set_cur) {
  Control control = ranged(plain(selector, set_cur), with_message(reply_long(0), "get extern 1 mini\n"),
                           with_message(reply_word(3), "get exter1 max\n"));
  control.cur = reply_live(extension_value, sizeof(extension_value));
  return control;
}

constexpr Control osd_control(u8 selector) {
  Control control = ranged(plain(selector), with_message(kZero, "get extern2 mini\n"),
                           with_message(kOne, "get exter2 max\n"));
  control.len = with_message(kOne, "get osd len\n");
  return control;
}

constexpr Control record_control(u8 selector, const Reply& len, ControlFunction get_cur,
                                 ControlFunction set_cur) {
  return {.selector = selector, .len = len, .info = kInfo, .get_cur = get_cur, .set_cur = set_cur};
}

constexpr Control kExtensionUnitRows[] = {
    extension_control(0, set_nothing),
    extension_control(1, set_extension_value),
    osd_control(2),
    ranged(
        record_control(3, with_message(reply_word(3), "get dir ctrl len\n"), get_key_frames, set_key_frames)),
    ranged(4),
    ranged(5, set_private_start),
    ranged(6),
    ranged(7),
    ranged(8),
    ranged(record_control(9, with_message(reply_word(kVersionRecordSize), "get update ctrl len\n"),
                          get_version, set_update)),
    ranged(10),
    ranged(11),
    ranged(12),
    ranged(13),
    record_control(15, reply_word(3), get_common, set_common),
    record_control(16, reply_word(sizeof(RateBlock)), get_rate_control, set_rate_control),
    ranged(17),
    ranged(18),
    ranged(19),
    plain(24, set_reboot),
    ranged(25, set_disconnected),
    ranged(26),
    ranged(27),
    ranged(28),
};

}  // namespace

void uvc_vendor_init(const char* version, const char* date) {
  const u32 number = parse_number(version, 16);
  const u32 year = date_field(date, 0);
  const u8 group[] = {
      static_cast<u8>(number >> 8 & 15),
      static_cast<u8>(number >> 4 & 15),
      static_cast<u8>(number & 15),
      static_cast<u8>(year >> 8),
      static_cast<u8>(year),
      static_cast<u8>(date_field(date, 5)),
      static_cast<u8>(date_field(date, 8)),
  };
  build_version = kUnknownVersion;
  for (std::size_t at = 1; at < sizeof(build_version.record); at += sizeof(group))
    std::memcpy(build_version.record + at, group, sizeof(group));
  version_info = &build_version;
}

void Korrindale_fireware_process(i32 mode, u8* buffer) {
  if (mode == 0) return start_update();
  const Version* version = version_info;
  std::memcpy(buffer, version->record, sizeof(version->record));
}

constexpr Unit uvc_extension_unit = {kVideoControlInterface, kExtensionUnit, kExtensionUnitRows, plain(0)};
