#include "sim/host/host_controls.h"

#include <linux/usb/video.h>

#include <algorithm>
#include <cstdlib>
#include <vector>

namespace sim {

namespace {

constexpr HostControl kControls[] = {
    {"auto_exposure", kCameraTerminal, UVC_CT_AE_MODE_CONTROL, 1, 0, 1},
    {"exposure_time_absolute", kCameraTerminal, UVC_CT_EXPOSURE_TIME_ABSOLUTE_CONTROL, 4, 0, 4},
    {"focus_absolute", kCameraTerminal, UVC_CT_FOCUS_ABSOLUTE_CONTROL, 2, 0, 2},
    {"zoom_absolute", kCameraTerminal, UVC_CT_ZOOM_ABSOLUTE_CONTROL, 2, 0, 2},
    {"zoom_continuous", kCameraTerminal, UVC_CT_ZOOM_RELATIVE_CONTROL, 3, 0, 2, HostValue::kMotion, 2},
    {"pan_absolute", kCameraTerminal, UVC_CT_PANTILT_ABSOLUTE_CONTROL, 8, 0, 4, HostValue::kSigned},
    {"tilt_absolute", kCameraTerminal, UVC_CT_PANTILT_ABSOLUTE_CONTROL, 8, 4, 4, HostValue::kSigned},
    {"pan_speed", kCameraTerminal, UVC_CT_PANTILT_RELATIVE_CONTROL, 4, 0, 2, HostValue::kMotion, 1},
    {"tilt_speed", kCameraTerminal, UVC_CT_PANTILT_RELATIVE_CONTROL, 4, 2, 2, HostValue::kMotion, 3},
    {"roll_absolute", kCameraTerminal, UVC_CT_ROLL_ABSOLUTE_CONTROL, 2, 0, 2, HostValue::kSigned},
    {"backlight_compensation", kProcessingUnit, UVC_PU_BACKLIGHT_COMPENSATION_CONTROL, 2, 0, 2},
    {"brightness", kProcessingUnit, UVC_PU_BRIGHTNESS_CONTROL, 2, 0, 2, HostValue::kSigned},
    {"contrast", kProcessingUnit, UVC_PU_CONTRAST_CONTROL, 2, 0, 2},
    {"gain", kProcessingUnit, UVC_PU_GAIN_CONTROL, 2, 0, 2},
    {"power_line_frequency", kProcessingUnit, UVC_PU_POWER_LINE_FREQUENCY_CONTROL, 1, 0, 1},
    {"hue", kProcessingUnit, UVC_PU_HUE_CONTROL, 2, 0, 2, HostValue::kSigned},
    {"saturation", kProcessingUnit, UVC_PU_SATURATION_CONTROL, 2, 0, 2},
    {"sharpness", kProcessingUnit, UVC_PU_SHARPNESS_CONTROL, 2, 0, 2},
    {"gamma", kProcessingUnit, UVC_PU_GAMMA_CONTROL, 2, 0, 2},
    {"white_balance_temperature", kProcessingUnit, UVC_PU_WHITE_BALANCE_TEMPERATURE_CONTROL, 2, 0, 2},
    {"white_balance_automatic", kProcessingUnit, UVC_PU_WHITE_BALANCE_TEMPERATURE_AUTO_CONTROL, 1, 0, 1},
    {"blue_balance", kProcessingUnit, UVC_PU_WHITE_BALANCE_COMPONENT_CONTROL, 4, 0, 2, HostValue::kSigned},
    {"red_balance", kProcessingUnit, UVC_PU_WHITE_BALANCE_COMPONENT_CONTROL, 4, 2, 2, HostValue::kSigned},
    {"white_balance_component_auto", kProcessingUnit, UVC_PU_WHITE_BALANCE_COMPONENT_AUTO_CONTROL, 1, 0, 1},
    {"digital_multiplier", kProcessingUnit, UVC_PU_DIGITAL_MULTIPLIER_CONTROL, 2, 0, 2},
};

i32 motion_in(const HostControl& control, u8 request, std::span<const u8> data) {
  const i32 speed = data[control.speed_offset];
  if (request == UVC_GET_MIN) return -speed;
  if (request != UVC_GET_CUR && request != UVC_SET_CUR) return speed;
  const auto direction = static_cast<i8>(data[control.offset]);
  return direction == 0 ? 0 : direction > 0 ? speed : -speed;
}

i32 number_in(std::span<const u8> bytes, bool is_signed) {
  u32 value = is_signed && bytes.back() & 0x80 ? ~0u : 0;
  for (std::size_t i = bytes.size(); i-- > 0;) value = value << 8 | bytes[i];
  return static_cast<i32>(value);
}

void put_value(const HostControl& control, i32 value, std::span<u8> data) {
  if (control.value == HostValue::kMotion) {
    data[control.offset] = value == 0 ? 0 : value > 0 ? 1 : 255;
    data[control.speed_offset] = static_cast<u8>(std::abs(std::clamp(value, -255, 255)));
    return;
  }
  for (u8& byte : data.subspan(control.offset, control.size)) {
    byte = static_cast<u8>(value);
    value >>= 8;
  }
}

}  // namespace

std::span<const HostControl> host_controls() { return kControls; }

const HostControl* find_host_control(std::string_view name) {
  const auto found = std::ranges::find(kControls, name, &HostControl::name);
  return found == std::end(kControls) ? nullptr : found;
}

std::optional<i32> value_in(const HostControl& control, u8 request, std::span<const u8> data) {
  if (data.size() < control.length) return {};
  if (control.value == HostValue::kMotion) return motion_in(control, request, data);
  return number_in(data.subspan(control.offset, control.size), control.value == HostValue::kSigned);
}

ControlAnswer get_control(Conversation& host, u8 entity, u8 selector, u8 request, u16 length) {
  return host.control(class_request(request, kVideoControlInterface, entity, selector, length));
}

ControlAnswer set_control(Conversation& host, u8 entity, u8 selector, std::span<const u8> data) {
  return host.control(class_request(UVC_SET_CUR, kVideoControlInterface, entity, selector, data.size()),
                      data);
}

std::optional<i32> get_control(Conversation& host, const HostControl& control, u8 request) {
  const auto answer = get_control(host, control.entity, control.selector, request, control.length);
  return answer.stalled ? std::nullopt : value_in(control, request, answer.data);
}

bool set_control(Conversation& host, const HostControl& control, i32 value) {
  std::vector<u8> data(control.length);
  if (control.length > control.size) {
    auto answer = get_control(host, control.entity, control.selector, UVC_GET_CUR, control.length);
    if (answer.stalled || answer.data.size() < data.size()) return false;
    data = std::move(answer.data);
  }
  put_value(control, value, data);
  return !set_control(host, control.entity, control.selector, data).stalled;
}

}  // namespace sim
