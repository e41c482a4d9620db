// The I2C buses of the simulated camera, with the chip platform's own request numbers: one buffer carries the
// register address in and the value out. Every address of every bus has a device of 64 Ki registers.
#pragma once

#include <sys/types.h>

#include "common/bytes.h"

namespace sim {

/// An open descriptor of a bus, and what its ioctls have set.
struct I2cClient {
  u32 bus = 0;
  u32 device = 0;
  bool wide_register = false;  ///< 2-byte register addresses
  bool wide_data = false;      ///< 2-byte data
};

/// Arguments and results are those of the system calls on the bus device. The argument of an ioctl is
/// a plain number.
int i2c_ioctl(I2cClient& client, unsigned long request, void* argument);
ssize_t i2c_read(const I2cClient& client, void* buffer, size_t length);
ssize_t i2c_write(const I2cClient& client, const void* buffer, size_t length);

}  // namespace sim
