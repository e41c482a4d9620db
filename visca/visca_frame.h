// The VISCA frames of the camera head: address, command and terminator, as the system server gets them and
// passes them on. A 16-bit value travels as four bytes of four bits each, most significant first.
#pragma once

#include <initializer_list>

#include "common/bytes.h"

struct ViscaFrame {
  u8 bytes[16] = {};
  u8 length = 0;
  bool operator==(const ViscaFrame&) const = default;
};

/// The command bytes of settings and inquiries.
enum ViscaCommand : u8 {
  kViscaZoomDrive = 0x07,
  kViscaWhiteBalanceTemperature = 0x2A,
  kViscaGain = 0x2C,
  kViscaBacklight = 0x33,
  kViscaWhiteBalanceMode = 0x35,
  kViscaExposureMode = 0x39,
  kViscaSharpness = 0x42,
  kViscaZoomPosition = 0x47,
  kViscaGamma = 0x5B,
  kViscaPictureMode = 0x61,
  kViscaSaturation = 0xA1,
  kViscaContrast = 0xA2,
  kViscaBrightness = 0xA4,
  kViscaPowerLine = 0xAA,
};

constexpr u8 kViscaBacklightOn = 2, kViscaBacklightOff = 3;
constexpr u8 kViscaWhiteBalanceAuto = 0, kViscaWhiteBalanceManual = 6;
constexpr u8 kViscaExposureAuto = 0, kViscaExposureManual = 3;
constexpr u8 kViscaZoomStop = 0, kViscaZoomTele = 2, kViscaZoomWide = 3;
constexpr u8 kViscaPanLeft = 1, kViscaPanRight = 2, kViscaPanStop = 3;
constexpr u8 kViscaTiltUp = 1, kViscaTiltDown = 2, kViscaTiltStop = 3;
constexpr u8 kViscaPictureModeFirst = 0x10;  ///< of four

constexpr u8 kViscaCameraAddress = 0x81;
constexpr u8 kViscaTerminator = 0xFF;
constexpr u8 kViscaPanTiltSpeed = 0x10;

/// A frame of these bytes, at most 14, between address and terminator.
constexpr ViscaFrame visca_frame(std::initializer_list<u8> bytes) {
  ViscaFrame frame;
  frame.bytes[frame.length++] = kViscaCameraAddress;
  for (const u8 byte : bytes) frame.bytes[frame.length++] = byte;
  frame.bytes[frame.length++] = kViscaTerminator;
  return frame;
}

/// Four bits of a value; place 0 is the most significant.
constexpr u8 visca_nibble(u16 value, int place) { return value >> (12 - 4 * place) & 15; }

constexpr ViscaFrame visca_set_byte(u8 command, u8 value) { return visca_frame({1, 4, command, value}); }
constexpr ViscaFrame visca_set_value(u8 command, u16 value) {
  return visca_frame({1, 4, command, visca_nibble(value, 0), visca_nibble(value, 1), visca_nibble(value, 2),
                      visca_nibble(value, 3)});
}
constexpr ViscaFrame visca_inquiry(u8 command) { return visca_frame({9, 4, command}); }
constexpr ViscaFrame visca_pan_tilt_drive(u8 pan, u8 tilt) {
  return visca_frame({1, 6, 1, kViscaPanTiltSpeed, kViscaPanTiltSpeed, pan, tilt});
}
/// In the head's steps of 270 arc seconds, as two's complement.
constexpr ViscaFrame visca_pan_tilt_absolute(u16 pan, u16 tilt) {
  return visca_frame({1, 6, 2, kViscaPanTiltSpeed, kViscaPanTiltSpeed, visca_nibble(pan, 0),
                      visca_nibble(pan, 1), visca_nibble(pan, 2), visca_nibble(pan, 3), visca_nibble(tilt, 0),
                      visca_nibble(tilt, 1), visca_nibble(tilt, 2), visca_nibble(tilt, 3)});
}

static_assert(visca_set_value(kViscaBrightness, 15) ==
              ViscaFrame{{0x81, 1, 4, 0xA4, 0, 0, 0, 0x0F, 0xFF}, 9});
static_assert(visca_set_value(kViscaWhiteBalanceTemperature, 4600) ==
              ViscaFrame{{0x81, 1, 4, 0x2A, 1, 1, 15, 8, 0xFF}, 9});
static_assert(visca_set_byte(kViscaWhiteBalanceMode, kViscaWhiteBalanceManual) ==
              ViscaFrame{{0x81, 1, 4, 0x35, 6, 0xFF}, 6});
static_assert(visca_inquiry(kViscaZoomPosition) == ViscaFrame{{0x81, 9, 4, 0x47, 0xFF}, 5});
static_assert(visca_pan_tilt_drive(kViscaPanLeft, kViscaTiltStop) ==
              ViscaFrame{{0x81, 1, 6, 1, 0x10, 0x10, 1, 3, 0xFF}, 9});
static_assert(visca_pan_tilt_absolute(2266, 0xFB50) ==
              ViscaFrame{{0x81, 1, 6, 2, 0x10, 0x10, 0, 8, 0xD, 0xA, 0xF, 0xB, 5, 0, 0xFF}, 15});
