#include "uvc/uvc_class_camera.h"

#include <algorithm>
#include <cstring>
#include <optional>

#include "platform/uvc_units.h"
#include "support/print.h"
#include "uvc/uvc_state.h"
#include "visca/visca_link.h"

constexpr char kPrintFile[] = "uvc_class.c";

namespace {

// The current values as they cross the bus, little-endian.
u8 backlight[2], brightness[2], contrast[2], gain[2], power_line[2], hue[2], saturation[2];
u8 sharpness[2], gamma_curve[2], balance_component[4], digital_multiplier[2];
u8 balance_temperature[2] = {0xF8, 0x11};  // 4600 K
u8 balance_auto[1], component_auto[1];
u8 exposure_mode[1], exposure_time[4], focus[2], zoom[2], roll[2];
u8 zoom_motion[3];    // direction, digital zoom (never set), speed
u8 head_position[8];  // of the last absolute request: pan, tilt
u8 head_motion[4];    // of the last relative request: direction and speed of pan, then of tilt

// Readings.

std::optional<u32> cached(const Control& control) {
  const CameraCache* cache = camera_cache;
  if (!cache || control.cache == kNotCached) return {};
  const auto load = [](const u32& word) { return std::atomic_ref(const_cast<u32&>(word)).load(); };
  if (load(cache->valid) != CAMERA_CACHE_VALID) return {};
  return load(cache->words[control.cache]);
}

// The reply's first word, or nothing when there is no reply or it is shorter than the control's value.
std::optional<u32> inquire(const Control& control) {
  u8 reply[kViscaReplyRoom];
  const i32 length = visca_transact(visca_inquiry(control.visca), reply);
  if (length < control.cur.count) return {};
  u8 word[4] = {};
  std::memcpy(word, reply, std::min<std::size_t>(length, sizeof(word)));
  return get_le32(word);
}

u32 within_limits(const Control& control, u32 value) {
  if (control.max.count == 0) return value;
  return std::clamp(value, reply_value(control.min), reply_value(control.max));
}

UvcStatus give_stored(const Control& control) {
  std::memcpy(uvc_resp_buf, control.stored, control.cur.count);
  return kNoError;
}

void keep_reading(const Control& control, u32 value) {
  u8 word[4];
  put_le32(word, value);
  std::memcpy(control.stored, word, control.cur.count);
}

// A cached word's low 16 bits are taken as they are; only the answer to an inquiry is brought within limits.
UvcStatus get_reading(const Control& control) {
  if (const std::optional<u32> word = cached(control))
    keep_reading(control, *word & 0xFFFF);
  else if (const std::optional<u32> reading = inquire(control))
    keep_reading(control, within_limits(control, *reading & 0xFFFF));
  return give_stored(control);
}

UvcStatus get_zoom(const Control& control) {
  if (const std::optional<u32> reading = inquire(control)) keep_reading(control, *reading);
  return give_stored(control);
}

UvcStatus get_exposure_mode(const Control& control) {
  if (const std::optional<u32> reading = inquire(control)) keep_reading(control, *reading == 0);
  return give_stored(control);
}

// Deliberate: gain, focus and roll always read 0, and a reading forgets what was set.
UvcStatus get_zero(const Control& control) {
  keep_reading(control, 0);
  return give_stored(control);
}

// Deliberate: the multiplier reads the same, whatever was set.
UvcStatus get_digital_multiplier(const Control&) {
  put_le16(uvc_resp_buf, 50);
  return kNoError;
}

// Settings.

u32 host_value(const Control& control) {
  u8 word[4] = {};
  std::memcpy(word, uvc_resp_buf, control.cur.count);
  return get_le32(word);
}

UvcStatus set_any(const Control& control) {
  std::memcpy(control.stored, uvc_resp_buf, control.cur.count);
  return kNoError;
}

UvcStatus set_within_limits(const Control& control) {
  const u32 value = host_value(control);
  if (value < reply_value(control.min) || value > reply_value(control.max)) return kOutOfRange;
  return set_any(control);
}

UvcStatus set_and_send_value(const Control& control) {
  const UvcStatus status = set_within_limits(control);
  if (status == kNoError) visca_send(visca_set_value(control.visca, static_cast<u16>(host_value(control))));
  return status;
}

UvcStatus set_and_send_byte(const Control& control) {
  const UvcStatus status = set_within_limits(control);
  if (status == kNoError) visca_send(visca_set_byte(control.visca, static_cast<u8>(host_value(control))));
  return status;
}

UvcStatus set_backlight(const Control& control) {
  const UvcStatus status = set_within_limits(control);
  const u8 mode = host_value(control) ? kViscaBacklightOn : kViscaBacklightOff;
  if (status == kNoError) visca_send(visca_set_byte(control.visca, mode));
  return status;
}

// Deliberate: the whole range is announced, but no value is accepted.
UvcStatus set_hue(const Control&) { return kOutOfRange; }

UvcStatus set_balance_temperature(const Control& control) {
  const UvcStatus status = set_within_limits(control);
  if (status != kNoError) return status;
  const u16 kelvin = static_cast<u16>(host_value(control));
  visca_send(visca_set_byte(kViscaWhiteBalanceMode, kViscaWhiteBalanceManual));
  visca_send(visca_set_value(control.visca, kelvin));
  return status;
}

UvcStatus set_balance_auto(const Control& control) {
  const u8 mode = host_value(control) ? kViscaWhiteBalanceAuto : kViscaWhiteBalanceManual;
  visca_send(visca_set_byte(control.visca, mode));
  return set_any(control);
}

// Deliberate: the camera terminal announces limits, but accepts every value.

UvcStatus set_exposure_mode(const Control& control) {
  visca_send(visca_set_byte(control.visca, host_value(control) ? kViscaExposureAuto : kViscaExposureManual));
  return set_any(control);
}

UvcStatus set_zoom(const Control& control) {
  visca_send(visca_set_value(control.visca, static_cast<u16>(host_value(control))));
  return set_any(control);
}

UvcStatus set_zoom_motion(const Control& control) {
  const u8 direction = zoom_motion[0] = uvc_resp_buf[0];
  zoom_motion[2] = uvc_resp_buf[2];
  const u8 drive = direction == 1 ? kViscaZoomTele : direction == 255 ? kViscaZoomWide : kViscaZoomStop;
  visca_send(visca_set_byte(control.visca, drive));
  return kNoError;
}

UvcStatus set_head_position(const Control& control) {
  set_any(control);
  uvc_apantilt_process(static_cast<i32>(get_le32(head_position)),
                       static_cast<i32>(get_le32(head_position + 4)));
  return kNoError;
}

UvcStatus set_head_motion(const Control& control) {
  set_any(control);
  uvc_rpantilt_process(head_motion[0], head_motion[1], head_motion[2], head_motion[3]);
  return kNoError;
}

// The values 1 to 4 select one of the four picture modes; others are only stored.
UvcStatus set_roll(const Control& control) {
  const u32 mode = host_value(control);
  if (mode >= 1 && mode <= 4)
    visca_send(visca_set_byte(control.visca, static_cast<u8>(kViscaPictureModeFirst + mode - 1)));
  return set_any(control);
}

UvcStatus keep_status(const Control&) { return static_cast<UvcStatus>(uvc_request_error_code); }

// Pan and tilt.

constexpr i32 kArcSecondsPerDegree = 3600;
constexpr i32 kArcSecondsPerStep = 270;
constexpr i32 kPanLimit = 170 * kArcSecondsPerDegree;
constexpr i32 kTiltLimit = 90 * kArcSecondsPerDegree;

struct HeadDrive {
  u8 pan, tilt;
  i32 shown_pan, shown_tilt;
};

HeadDrive head_drive(u8 pan_direction, u8 tilt_direction) {
  if (pan_direction == 255) return {kViscaPanLeft, kViscaTiltStop, 1, 0};
  if (pan_direction == 1) return {kViscaPanRight, kViscaTiltStop, 2, 0};
  if (tilt_direction == 1) return {kViscaPanStop, kViscaTiltUp, 0, 3};
  if (tilt_direction == 255) return {kViscaPanStop, kViscaTiltDown, 0, 4};
  return {kViscaPanStop, kViscaTiltStop, 0, 0};
}

// The rows.

constexpr Reply kInfo = reply_bytes({kInfoGetSet});

// A control of one 16-bit value.
struct WordRow {
  u8 selector;
  u8* stored;
  u16 min = 0, max, res = 1, def = 0;
  ControlFunction get = nullptr;  // null: the stored value
  ControlFunction set;
  u8 visca = 0;
  i8 cache = kNotCached;
  u8 len = 2;
};

constexpr Control word_control(const WordRow& row) {
  return {
      .selector = row.selector,
      .len = reply_word(row.len),
      .info = kInfo,
      .min = reply_word(row.min),
      .max = reply_word(row.max),
      .res = reply_word(row.res),
      .def = reply_word(row.def),
      .get_cur = row.get,
      .cur = reply_live(row.stored, 2),
      .set_cur = row.set,
      .stored = row.stored,
      .visca = row.visca,
      .cache = row.cache,
  };
}

// clang-format off
constexpr Control kProcessingUnitRows[] = {
    word_control({.selector = PU_BACKLIGHT_COMPENSATION_CONTROL, .stored = backlight, .max = 1,
                  .set = set_backlight, .visca = kViscaBacklight}),
    word_control({.selector = PU_BRIGHTNESS_CONTROL, .stored = brightness, .max = 15, .def = 8,
                  .get = get_reading, .set = set_and_send_value, .visca = kViscaBrightness, .cache = 0}),
    word_control({.selector = PU_CONTRAST_CONTROL, .stored = contrast, .max = 15, .def = 8,
                  .get = get_reading, .set = set_and_send_value, .visca = kViscaContrast, .cache = 1}),
    word_control({.selector = PU_GAIN_CONTROL, .stored = gain, .min = 4, .max = 15, .def = 15,
                  .get = get_zero, .set = set_and_send_byte, .visca = kViscaGain}),
    word_control({.selector = PU_POWER_LINE_FREQUENCY_CONTROL, .stored = power_line, .max = 2,
                  .get = get_reading, .set = set_and_send_byte, .visca = kViscaPowerLine, .cache = 9, .len = 1}),
    word_control({.selector = PU_HUE_CONTROL, .stored = hue, .min = 0x8000, .max = 0x7FFF, .set = set_hue}),
    word_control({.selector = PU_SATURATION_CONTROL, .stored = saturation, .max = 15, .def = 8,
                  .get = get_reading, .set = set_and_send_value, .visca = kViscaSaturation, .cache = 3}),
    word_control({.selector = PU_SHARPNESS_CONTROL, .stored = sharpness, .max = 15, .def = 3,
                  .get = get_reading, .set = set_and_send_value, .visca = kViscaSharpness, .cache = 4}),
    word_control({.selector = PU_GAMMA_CONTROL, .stored = gamma_curve, .max = 6,
                  .get = get_reading, .set = set_and_send_byte, .visca = kViscaGamma, .cache = 5}),
    word_control({.selector = PU_WHITE_BALANCE_TEMPERATURE_CONTROL, .stored = balance_temperature,
                  .min = 1800, .max = 10000, .def = 4600,
                  .set = set_balance_temperature, .visca = kViscaWhiteBalanceTemperature}),
    {
        .selector = PU_WHITE_BALANCE_TEMPERATURE_AUTO_CONTROL,
        .len = reply_word(1),
        .info = kInfo,
        .def = reply_word(1),
        .get_cur = get_reading,
        .cur = reply_live(balance_auto, 1),
        .set_cur = set_balance_auto,
        .stored = balance_auto,
        .visca = kViscaWhiteBalanceMode,
        .cache = 6,
    },
    {
        .selector = PU_WHITE_BALANCE_COMPONENT_CONTROL,
        .len = reply_word(2),  // Deliberate: the value has 4 bytes
        .info = kInfo,
        .min = reply_long(0),
        .max = reply_bytes({0x50, 0x50, 0, 0}),
        .res = reply_long(1),
        .def = reply_bytes({0x10, 0x10, 0, 0}),
        .cur = with_message(reply_live(balance_component, 4), "get cur wbc\n"),
        .set_cur = set_within_limits,
        .stored = balance_component,
    },
    {
        .selector = PU_WHITE_BALANCE_COMPONENT_AUTO_CONTROL,
        .len = reply_word(2),
        .info = kInfo,
        .def = reply_word(1),
        .cur = reply_live(component_auto, 1),
        .set_cur = set_any,
        .stored = component_auto,
    },
    word_control({.selector = PU_DIGITAL_MULTIPLIER_CONTROL, .stored = digital_multiplier, .max = 128, .def = 50,
                  .get = get_digital_multiplier, .set = set_within_limits}),
};

constexpr Control kCameraTerminalRows[] = {
    {
        .selector = CT_AE_MODE_CONTROL,
        .len = reply_word(1),
        .info = kInfo,
        .min = reply_bytes({0}),
        .max = reply_bytes({1}),
        .res = reply_bytes({1}),
        .def = reply_bytes({0}),
        .get_cur = get_exposure_mode,
        .cur = reply_live(exposure_mode, 1),
        .set_cur = set_exposure_mode,
        .stored = exposure_mode,
        .visca = kViscaExposureMode,
    },
    {
        .selector = CT_EXPOSURE_TIME_ABSOLUTE_CONTROL,
        .len = reply_word(4),
        .info = kInfo,
        .min = reply_long(1),
        .max = reply_long(10000),
        .res = reply_long(1),
        .def = reply_long(100),
        .cur = reply_live(exposure_time, 4),
        .set_cur = set_any,
        .stored = exposure_time,
    },
    word_control({.selector = CT_FOCUS_ABSOLUTE_CONTROL, .stored = focus, .max = 65535, .res = 0,
                  .get = get_zero, .set = set_any}),
    {
        .selector = CT_FOCUS_RELATIVE_CONTROL,
        .len = reply_word(2),
        .info = reply_bytes({0}),
        .set_cur = keep_status,
    },
    word_control({.selector = CT_ZOOM_ABSOLUTE_CONTROL, .stored = zoom, .max = 16384,
                  .get = get_zoom, .set = set_zoom, .visca = kViscaZoomPosition}),
    {
        .selector = CT_ZOOM_RELATIVE_CONTROL,
        .len = reply_word(3),
        .info = kInfo,
        .min = reply_bytes({0, 0, 0}),
        .max = reply_bytes({255, 0, 4}),
        .res = reply_bytes({0, 0, 1}),
        .cur = reply_live(zoom_motion, 3),
        .set_cur = set_zoom_motion,
        .stored = zoom_motion,
        .visca = kViscaZoomDrive,
    },
    {
        .selector = CT_PANTILT_ABSOLUTE_CONTROL,
        .len = reply_word(8),
        .info = kInfo,
        .min = reply_longs(-kPanLimit, -kTiltLimit),
        .max = reply_longs(kPanLimit, kTiltLimit),
        .res = reply_longs(kArcSecondsPerDegree, kArcSecondsPerDegree),
        .def = reply_longs(0, 0),
        .cur = reply_live(head_position, 8),
        .set_cur = set_head_position,
        .stored = head_position,
    },
    {
        .selector = CT_PANTILT_RELATIVE_CONTROL,
        .len = reply_word(4),
        .info = kInfo,
        .min = reply_bytes({0, 1, 0, 1}),
        .max = reply_bytes({0, 7, 0, 7}),
        .res = reply_bytes({0, 1, 0, 1}),
        .def = reply_bytes({0, 1, 0, 1}),
        .cur = reply_live(head_motion, 4),
        .set_cur = set_head_motion,
        .stored = head_motion,
    },
    word_control({.selector = CT_ROLL_ABSOLUTE_CONTROL, .stored = roll, .max = 1000, .res = 0,
                  .get = get_zero, .set = set_roll, .visca = kViscaPictureMode}),
};
// clang-format on

}  // namespace

void uvc_apantilt_process(i32 pan, i32 tilt) {
  PRINT_INFO("set pan[%d] tilt[%d] \n", pan / kArcSecondsPerDegree, tilt / kArcSecondsPerDegree);
  visca_send(visca_pan_tilt_absolute(static_cast<u16>(pan / kArcSecondsPerStep),
                                     static_cast<u16>(tilt / kArcSecondsPerStep)));
}

void uvc_rpantilt_process(u8 pan_direction, u8, u8 tilt_direction, u8) {
  PRINT_INFO("pan_direct[%d] tilt_direct[%d] \n", pan_direction, tilt_direction);
  const HeadDrive drive = head_drive(pan_direction, tilt_direction);
  PRINT_INFO("pan & tilt is %d,%d\n", drive.shown_pan, drive.shown_tilt);
  visca_send(visca_pan_tilt_drive(drive.pan, drive.tilt));
}

constexpr Unit uvc_camera_terminal = {kVideoControlInterface,
                                      kCameraTerminal,
                                      kCameraTerminalRows,
                                      {.len = reply_word(2), .info = reply_bytes({0})}};

constexpr Unit uvc_processing_unit = {
    kVideoControlInterface, kProcessingUnit, kProcessingUnitRows, {.len = reply_word(2)}};
