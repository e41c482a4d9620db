// The units of the video-control interface: their numbers, and the controls that the camera's descriptors
// announce for each. It is plain C as well, since the kernel module of rigs/linux reads it.
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
