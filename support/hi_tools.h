// The chip's registers, the I2C buses, and mappings of ordinary files.
// himm and himd are for the main thread only (see memmap.h); the others keep nothing between calls.
#pragma once

#include <sys/types.h>

#include "common/bytes.h"

/// Writes the 32-bit register at physical address `addr`, a multiple of 4. Returns 0 or -1.
int himm(u32 addr, u32 value);
/// Reads the 32-bit register at physical address `addr`, a multiple of 4. Returns 0xFFFFFFFF on failure,
/// which a register may hold as well.
u32 himd(u32 addr);

/// Reads a register of device `dev_addr` (7 bits) on bus 0, 1 or 2. Widths are in bytes and are passed on as
/// they are; only 1 and 2 make sense to the chip's driver. Returns the value, 0..0xFFFF, or prints an error
/// and returns -1; for another bus and for widths above 4 it returns -1 without printing.
i32 i2c_read(u32 bus, u32 dev_addr, u32 reg_addr, u32 reg_width, u32 data_width);
/// Writes a register in the same way, with both widths together at most 4. Returns 0 or -1. A failed write of
/// the bytes themselves goes unnoticed.
int i2c_write(u32 bus, u32 dev_addr, u32 reg_addr, u32 data, u32 reg_width, u32 data_width);

/// Maps `len` bytes of a file, read-write and shared. Creates the file when it is missing, but never grows it
/// to `len`. Returns null when there is no path or the file cannot be opened.
/// Deliberate: a mapping that failed is returned as MAP_FAILED and reported as a success.
void* mmapfile(const char* path, u32 len);
/// The same, read-only, for a file that exists.
void* mmapfile_r(const char* path, u32 len, mode_t mode);
