// The vendor's extension unit: encoder tuning, version record, firmware update, reboot. Control thread only,
// but for uvc_vendor_init.
// docs/controls.md tells what each selector does, and the layout of the rate control (selector 16).
#pragma once

#include "uvc/uvc_class_control.h"

/// kExtensionUnit of platform/uvc_units.h.
Unit uvc_extension_unit();

constexpr i32 kVersionRecordSize = 22;

/// Fills the version record from the build's version, a hexadecimal number, and date, "YYYY-MM-DD". Once, by
/// the main thread; the control thread may read meanwhile.
void uvc_vendor_init(const char* version, const char* date);

/// Mode 0 starts the firmware update: gives up the gadget node and runs the updater in the background. Any
/// other mode copies the version record into `buffer`, which holds kVersionRecordSize bytes.
void Korrindale_fireware_process(i32 mode, u8* buffer);
