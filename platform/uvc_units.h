// The units of the video-control interface: their numbers, and what the camera's descriptors announce for
// each. It is plain C as well, since the kernel module of rigs/linux reads it.
#pragma once

/// Entity numbers.
enum { kCameraTerminal = 1, kProcessingUnit = 2, kExtensionUnit = 3 };

/// bmControls, a bit for each control. UVC numbers the bits in another order than the selectors; a test names
/// the bit that a control needs.
enum {
  /// Auto exposure mode, exposure time absolute, focus absolute, zoom absolute and relative, pan-tilt
  /// absolute and relative, roll absolute.
  kCameraTerminalBits = 0x3E2A,
  /// All of UVC 1.0 but hue auto.
  kProcessingUnitBits = 0x77FF,
  /// Selectors 1 to 28.
  kExtensionUnitBits = 0x0FFFFFFF,
};
/// Bytes of the processing unit's bmControls: hosts that know UVC 1.0 expect 2 as long as these are enough.
enum { kProcessingUnitBitsSize = kProcessingUnitBits > 0xFFFF ? 3 : 2 };

/// guidExtensionCode, as the extension unit's descriptor carries it.
const unsigned char kExtensionUnitGuid[16] = {0x5A, 0x1E, 0x20, 0x94, 0x0B, 0x6D, 0x4C, 0x33,
                                              0x8E, 0x77, 0x42, 0xD1, 0x6F, 0x09, 0xC8, 0x3A};
