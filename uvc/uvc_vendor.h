// The vendor's extension unit: encoder tuning, version record, firmware update, reboot. docs/controls.md says
// what each selector does. Control thread only, except for uvc_vendor_init.
#pragma once

#include "uvc/uvc_class_row.h"

/// kExtensionUnit of platform/uvc_units.h.
extern const Unit uvc_extension_unit;

constexpr i32 kVersionRecordSize = 22;

/// Fills the version record from the build's version, a hexadecimal number, and date, "YYYY-MM-DD". The main
/// thread calls it once; the control thread may read at the same time.
void uvc_vendor_init(const char* version, const char* date);

/// Mode 0 starts the firmware update: gives up the gadget node and runs the updater in the background. Any
/// other mode copies the version record into `buffer`, which holds kVersionRecordSize bytes.
void Korrindale_fireware_process(i32 mode, u8* buffer);
