#include "sim/seam/i2c_bus.h"

#include <cerrno>
#include <cstdio>
#include <map>
#include <mutex>
#include <tuple>

#include "sim/seam/files.h"
#include "sim/seam/node_state.h"
#include "sim/seam/run.h"

namespace sim {
namespace {

constexpr unsigned long kSlaveForce = 0x0706;
constexpr unsigned long kSetRegWidth = 0x0709;
constexpr unsigned long kSetDataWidth = 0x070A;

std::mutex lock;
std::map<std::tuple<u32, u32, u16>, u16> registers;  // by bus, device, register address

size_t address_size(const I2cClient& client) { return client.wide_register ? 2 : 1; }
size_t data_size(const I2cClient& client) { return client.wide_data ? 2 : 1; }

u16 number(const u8* bytes, size_t size) { return size == 2 ? get_le16(bytes) : bytes[0]; }

int fail(int error) {
  errno = error;
  return -1;
}

void log_transfer(const I2cClient& client, const char* kind, u16 address, u16 value) {
  char line[64];
  std::snprintf(line, sizeof(line), "%u:%02x %s %0*x = %0*x", client.bus, client.device, kind,
                client.wide_register ? 4 : 2, address, client.wide_data ? 4 : 2, value);
  append_log(kI2cLog, line);
}

// The driver refuses a length that does not match the widths.
ssize_t refuse(const I2cClient& client, const char* kind, size_t length) {
  char line[64];
  std::snprintf(line, sizeof(line), "%u:%02x %s of %zu bytes", client.bus, client.device, kind, length);
  append_log(kI2cLog, line);
  return fail(EINVAL);
}

}  // namespace

int i2c_ioctl(I2cClient& client, unsigned long request, void* argument) {
  const auto value = static_cast<u32>(reinterpret_cast<std::uintptr_t>(argument));
  switch (request) {
    case kSlaveForce:
      if (const int error = fault_of(CallKind::kI2cSlave)) return fail(error);
      client.device = value;
      return 0;
    case kSetRegWidth:
      if (const int error = fault_of(CallKind::kI2cRegWidth)) return fail(error);
      client.wide_register = value != 0;
      return 0;
    case kSetDataWidth:
      if (const int error = fault_of(CallKind::kI2cDataWidth)) return fail(error);
      client.wide_data = value != 0;
      return 0;
    default:
      return fail(ENOTTY);
  }
}

ssize_t i2c_read(const I2cClient& client, void* buffer, size_t length) {
  if (const int error = fault_of(CallKind::kI2cRead)) return fail(error);
  if (length != address_size(client)) return refuse(client, "read", length);
  auto* bytes = static_cast<u8*>(buffer);
  const u16 address = number(bytes, length);
  const u16 value = i2c_register(client.bus, client.device, address);
  bytes[0] = static_cast<u8>(value);
  if (client.wide_data) bytes[1] = static_cast<u8>(value >> 8);  // the caller's buffer holds 4 bytes
  log_transfer(client, "read", address, value);
  return static_cast<ssize_t>(length);
}

ssize_t i2c_write(const I2cClient& client, const void* buffer, size_t length) {
  if (const int error = fault_of(CallKind::kI2cWrite)) return fail(error);
  if (length != address_size(client) + data_size(client)) return refuse(client, "write", length);
  const auto* bytes = static_cast<const u8*>(buffer);
  const u16 address = number(bytes, address_size(client));
  const u16 value = number(bytes + address_size(client), data_size(client));
  set_i2c_register(client.bus, client.device, address, value);
  log_transfer(client, "write", address, value);
  return static_cast<ssize_t>(length);
}

u16 i2c_register(u32 bus, u32 device, u16 address) {
  const std::lock_guard guard(lock);
  const auto found = registers.find({bus, device, address});
  return found == registers.end() ? u16{0} : found->second;
}

void set_i2c_register(u32 bus, u32 device, u16 address, u16 value) {
  const std::lock_guard guard(lock);
  registers[{bus, device, address}] = value;
}

}  // namespace sim
