#include "sim/parties/visca_device.h"

#include <algorithm>
#include <iterator>
#include <optional>
#include <utility>

#include "visca/visca_frame.h"

namespace sim {

namespace {

enum Category : u8 { kCamera = 4, kPanTilt = 6 };
constexpr u8 kCommand = 1, kInquiry = 9;
constexpr u8 kDrive = 1, kAbsolute = 2, kPanTiltPosition = 0x12;

// Address, kind, category, command, values, terminator.
constexpr std::size_t kValues = 4, kShortest = kValues + 1, kLongest = 16;

enum class Outcome { kAccepted, kWrongLength, kNotUnderstood, kNoSuchValue };

using Values = std::span<const u8>;

// Returns the word of four values of four bits each, or nothing if a value has more bits.
std::optional<u16> as_word(Values nibbles) {
  u32 word = 0;
  for (const u8 nibble : nibbles.first(4)) {
    if (nibble > 15) return std::nullopt;
    word = word << 4 | nibble;
  }
  return static_cast<u16>(word);
}

// Picture settings.

template <auto kField>
void set_field(CameraHead& head, u32 value) {
  PictureSettings settings = head.settings();
  settings.*kField = static_cast<std::remove_cvref_t<decltype(settings.*kField)>>(value);
  head.set(settings);
}

template <auto kField, u32 kLowest, u32 kHighest>
Outcome set_number(CameraHead& head, u32 value) {
  if (value < kLowest || value > kHighest) return Outcome::kNoSuchValue;
  set_field<kField>(head, value);
  return Outcome::kAccepted;
}

template <auto kField, u32 kOn, u32 kOff>
Outcome set_flag(CameraHead& head, u32 value) {
  if (value != kOn && value != kOff) return Outcome::kNoSuchValue;
  set_field<kField>(head, value == kOn);
  return Outcome::kAccepted;
}

template <auto kField>
u32 number(const CameraHead& head) {
  return head.settings().*kField;
}

template <auto kField, u32 kOn, u32 kOff>
u32 flag(const CameraHead& head) {
  return head.settings().*kField ? kOn : kOff;
}

// The lens.

Outcome zoom_to(CameraHead& head, u32 position) {
  if (position > u32{kZoomEnd}) return Outcome::kNoSuchValue;
  head.zoom_to(static_cast<i32>(position));
  return Outcome::kAccepted;
}

Outcome drive_zoom(CameraHead& head, u32 value) {
  constexpr std::pair<u8, i32> kDirections[] = {
      {kViscaZoomStop, 0}, {kViscaZoomTele, 1}, {kViscaZoomWide, -1}};
  const auto found = std::ranges::find(kDirections, value, &std::pair<u8, i32>::first);
  if (found == std::end(kDirections)) return Outcome::kNoSuchValue;
  head.zoom(found->second);
  return Outcome::kAccepted;
}

u32 zoom_position(const CameraHead& head) { return static_cast<u32>(head.zoom_position()); }

// Everything about one value: how many bytes carry it (4 means four bits each), what it sets, and what an
// inquiry answers. Where a function is missing, the camera has no such command or inquiry.
struct CameraRow {
  u8 command;
  std::size_t bytes;
  Outcome (*set)(CameraHead&, u32);
  u32 (*value)(const CameraHead&);
};

using S = PictureSettings;
constexpr CameraRow kCameraRows[] = {
    {kViscaBrightness, 4, set_number<&S::brightness, 0, 15>, number<&S::brightness>},
    {kViscaContrast, 4, set_number<&S::contrast, 0, 15>, number<&S::contrast>},
    {kViscaSaturation, 4, set_number<&S::saturation, 0, 15>, number<&S::saturation>},
    {kViscaSharpness, 4, set_number<&S::sharpness, 0, 15>, number<&S::sharpness>},
    {kViscaGamma, 1, set_number<&S::gamma, 0, 6>, number<&S::gamma>},
    {kViscaGain, 1, set_number<&S::gain, 4, 15>, number<&S::gain>},
    {kViscaPowerLine, 1, set_number<&S::power_line, 0, 2>, number<&S::power_line>},
    {kViscaPictureMode, 1, set_number<&S::picture_mode, kPlain, kMirrored>, number<&S::picture_mode>},
    {kViscaBacklight, 1, set_flag<&S::backlight, kViscaBacklightOn, kViscaBacklightOff>,
     flag<&S::backlight, kViscaBacklightOn, kViscaBacklightOff>},
    {kViscaExposureMode, 1, set_flag<&S::auto_exposure, kViscaExposureAuto, kViscaExposureManual>,
     flag<&S::auto_exposure, kViscaExposureAuto, kViscaExposureManual>},
    {kViscaWhiteBalanceMode, 1,
     set_flag<&S::auto_white_balance, kViscaWhiteBalanceAuto, kViscaWhiteBalanceManual>,
     flag<&S::auto_white_balance, 1, 0>},
    {kViscaWhiteBalanceTemperature, 4, set_number<&S::white_balance, 1800, 10000>, number<&S::white_balance>},
    {kViscaZoomPosition, 4, zoom_to, zoom_position},
    {kViscaZoomDrive, 1, drive_zoom, nullptr},
};

Outcome set_camera(CameraHead& head, u8 command, Values values) {
  const auto row = std::ranges::find(kCameraRows, command, &CameraRow::command);
  if (row == std::end(kCameraRows)) return Outcome::kNotUnderstood;
  if (values.size() != row->bytes) return Outcome::kWrongLength;
  const std::optional<u32> value = row->bytes == 4 ? as_word(values) : values[0];
  return value ? row->set(head, *value) : Outcome::kNotUnderstood;
}

// Pan and tilt: both speeds, then directions or positions.

// The sign of a direction byte: 1 and 2 move, 3 stops.
std::optional<i32> direction(u8 byte, u8 positive) {
  if (byte < 1 || byte > 3) return std::nullopt;
  if (byte == 3) return 0;
  return byte == positive ? 1 : -1;
}

Outcome turn(CameraHead& head, Values values) {
  const auto pan = direction(values[2], kViscaPanRight);
  const auto tilt = direction(values[3], kViscaTiltUp);
  if (!pan || !tilt) return Outcome::kNoSuchValue;
  head.turn({*pan, *tilt}, values[0], values[1]);
  return Outcome::kAccepted;
}

Outcome turn_to(CameraHead& head, Values values) {
  const auto pan = as_word(values.subspan(2)), tilt = as_word(values.subspan(6));
  if (!pan || !tilt) return Outcome::kNotUnderstood;
  head.turn_to({static_cast<i16>(*pan), static_cast<i16>(*tilt)}, values[0], values[1]);
  return Outcome::kAccepted;
}

Outcome set_pan_tilt(CameraHead& head, u8 command, Values values) {
  if (command != kDrive && command != kAbsolute) return Outcome::kNotUnderstood;
  if (values.size() != (command == kDrive ? 4 : 10)) return Outcome::kWrongLength;
  const bool speeds =
      values[0] >= 1 && values[0] <= kMostPanSpeed && values[1] >= 1 && values[1] <= kMostTiltSpeed;
  if (!speeds) return Outcome::kNoSuchValue;
  return command == kDrive ? turn(head, values) : turn_to(head, values);
}

std::optional<u32> inquire(const CameraHead& head, u8 category, u8 command) {
  if (category == kPanTilt && command == kPanTiltPosition) {
    const auto [pan, tilt] = head.position();
    return static_cast<u32>(tilt) << 16 | (static_cast<u32>(pan) & 0xFFFF);
  }
  const auto row = std::ranges::find(kCameraRows, command, &CameraRow::command);
  if (category != kCamera || row == std::end(kCameraRows) || !row->value) return std::nullopt;
  return row->value(head);
}

ViscaAnswer protocol_answer(Outcome outcome) {
  switch (outcome) {
    case Outcome::kAccepted:
      return {{0x90, 0x41, 0xFF}};
    case Outcome::kWrongLength:
      return {{0x90, 0x60, 0x01, 0xFF}, true};
    case Outcome::kNotUnderstood:
      return {{0x90, 0x60, 0x02, 0xFF}, true};
    case Outcome::kNoSuchValue:
      break;
  }
  return {{0x90, 0x61, 0x41, 0xFF}, true};
}

ViscaAnswer value_answer(u32 value) {
  ViscaAnswer answer{std::vector<u8>(sizeof(value))};
  put_le32(answer.bytes.data(), value);
  return answer;
}

}  // namespace

ViscaAnswer obey_visca(CameraHead& head, std::span<const u8> frame) {
  if (frame.size() < kShortest || frame.size() > kLongest || frame.back() != kViscaTerminator)
    return protocol_answer(Outcome::kWrongLength);
  const u8 kind = frame[1], category = frame[2], command = frame[3];
  const Values values = frame.subspan(kValues, frame.size() - kShortest);
  if (frame[0] != kViscaCameraAddress) return protocol_answer(Outcome::kNotUnderstood);
  if (kind == kInquiry) {
    const auto value = inquire(head, category, command);
    if (!value) return protocol_answer(Outcome::kNotUnderstood);
    return values.empty() ? value_answer(*value) : protocol_answer(Outcome::kWrongLength);
  }
  if (kind == kCommand && category == kCamera) return protocol_answer(set_camera(head, command, values));
  if (kind == kCommand && category == kPanTilt) return protocol_answer(set_pan_tilt(head, command, values));
  return protocol_answer(Outcome::kNotUnderstood);
}

}  // namespace sim
