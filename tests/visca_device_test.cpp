#include "sim/visca_device.h"

#include <gtest/gtest.h>

#include "visca/visca_frame.h"

using sim::CameraHead;
using sim::obey_visca;
using sim::PictureSettings;

namespace {

using Bytes = std::vector<u8>;

Bytes as_bytes(const ViscaFrame& frame) { return {frame.bytes, frame.bytes + frame.length}; }

const Bytes kAccepted{0x90, 0x41, 0xFF};
const Bytes kNoSuchValue{0x90, 0x61, 0x41, 0xFF};

Bytes word(u32 value) {
  Bytes bytes(4);
  put_le32(bytes.data(), value);
  return bytes;
}

Bytes answer(CameraHead& head, const Bytes& frame) {
  const sim::ViscaAnswer given = obey_visca(head, frame);
  EXPECT_EQ(given.refused, given.bytes[0] == 0x90 && given.bytes != kAccepted);
  return given.bytes;
}

PictureSettings with(void (*change)(PictureSettings&)) {
  PictureSettings settings;
  change(settings);
  return settings;
}

}  // namespace

TEST(ViscaDeviceTest, SettingsChangeWhatTheyNameAndAreReadBack) {
  const struct {
    const char* name;
    u8 command;
    ViscaFrame set;
    u32 before, after;  ///< what the inquiry answers
    PictureSettings settings;
    ViscaFrame beyond;
  } rows[] = {
      {"brightness", 0xA4, visca_set_value(0xA4, 15), 8, 15, with([](auto& s) { s.brightness = 15; }),
       visca_set_value(0xA4, 16)},
      {"contrast", 0xA2, visca_set_value(0xA2, 0), 8, 0, with([](auto& s) { s.contrast = 0; }),
       visca_set_value(0xA2, 0xFFFF)},
      {"saturation", 0xA1, visca_set_value(0xA1, 3), 8, 3, with([](auto& s) { s.saturation = 3; }),
       visca_set_value(0xA1, 16)},
      {"sharpness", 0x42, visca_set_value(0x42, 14), 3, 14, with([](auto& s) { s.sharpness = 14; }),
       visca_set_value(0x42, 0x100)},
      {"gamma", 0x5B, visca_set_byte(0x5B, 6), 0, 6, with([](auto& s) { s.gamma = 6; }),
       visca_set_byte(0x5B, 7)},
      {"gain", 0x2C, visca_set_byte(0x2C, 4), 15, 4, with([](auto& s) { s.gain = 4; }),
       visca_set_byte(0x2C, 3)},
      {"power line", 0xAA, visca_set_byte(0xAA, 2), 0, 2, with([](auto& s) { s.power_line = 2; }),
       visca_set_byte(0xAA, 3)},
      {"picture mode", 0x61, visca_set_byte(0x61, 0x13), 0x10, 0x13,
       with([](auto& s) { s.picture_mode = sim::kMirrored; }), visca_set_byte(0x61, 0x14)},
      {"backlight", 0x33, visca_set_byte(0x33, 2), 3, 2, with([](auto& s) { s.backlight = true; }),
       visca_set_byte(0x33, 1)},
      {"exposure", 0x39, visca_set_byte(0x39, 3), 0, 3, with([](auto& s) { s.auto_exposure = false; }),
       visca_set_byte(0x39, 1)},
      {"white balance", 0x35, visca_set_byte(0x35, 6), 1, 0,
       with([](auto& s) { s.auto_white_balance = false; }), visca_set_byte(0x35, 0xFF)},
      {"temperature", 0x2A, visca_set_value(0x2A, 10000), 4600, 10000,
       with([](auto& s) { s.white_balance = 10000; }), visca_set_value(0x2A, 1799)},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.name);
    CameraHead head;
    const Bytes inquiry = as_bytes(visca_inquiry(row.command));
    EXPECT_EQ(answer(head, inquiry), word(row.before));
    EXPECT_EQ(answer(head, as_bytes(row.set)), kAccepted);
    EXPECT_EQ(head.settings(), row.settings);
    EXPECT_EQ(answer(head, as_bytes(row.beyond)), kNoSuchValue);
    EXPECT_EQ(answer(head, inquiry), word(row.after)) << "a refused value changes nothing";
  }
}
