// The vendor's extension unit: encoder tuning, version record, firmware update, reboot. Control thread only,
// but for uvc_vendor_init.
//
// Rate control (selector 16) reads and writes eight bytes that describe the codec of the committed format:
//   0     codec: 0 H.264, 1 MJPEG, 2 H.265, 3 YUY2
//   1     rate-control mode
//   2, 3  bit rate in kbit/s, little-endian
//   4     key-frame interval in frames
//   5..7  H.264 and H.265: quantisers, 0..51; MJPEG: quality values, 0..100
// A byte that the mode has no parameter for is 0. H.264 in mode 1 with 12288 kbit/s, a key frame every 60
// frames and quantisers from 10 to 40: 00 01 00 30 3c 0a 28 00. A block that names another codec than the
// current one, an unknown mode, or a value outside its range (rate and interval begin at 1) changes nothing;
// so does every block while the codec is YUY2.
#pragma once

#include "uvc/uvc_class_control.h"

/// Entity 3 of the video-control interface.
Unit uvc_extension_unit();

constexpr i32 kVersionRecordSize = 22;

/// Fills the version record from the build's version, a hexadecimal number, and date, "YYYY-MM-DD". Once, by
/// the main thread; the control thread may read meanwhile.
void uvc_vendor_init(const char* version, const char* date);

/// Mode 0 starts the firmware update: gives up the gadget node and runs the updater in the background. Any
/// other mode copies the version record into `buffer`, which holds kVersionRecordSize bytes.
void Korrindale_fireware_process(i32 mode, u8* buffer);
