#include "support/hi_tools.h"

#include <fcntl.h>
#include <sys/mman.h>

#include <algorithm>
#include <cstdint>
#include <iterator>

#include "platform/sys.h"
#include "support/memmap.h"
#include "support/print.h"

constexpr char kPrintFile[] = "hi_tools";

namespace {

constexpr u32 kRegisterWindow = 128;  // bytes mapped for one register

constexpr unsigned long I2C_SLAVE_FORCE = 0x0706;
// Requests of the chip's own I2C driver: 1 for two bytes, 0 for one.
constexpr unsigned long CMD_SET_REG_WIDTH = 0x0709;
constexpr unsigned long CMD_SET_DATA_WIDTH = 0x070A;

constexpr const char* kI2cBuses[] = {"/dev/i2c-0", "/dev/i2c-1", "/dev/i2c-2"};
constexpr u32 kI2cTransferSize = 4;

class I2cBus {
 public:
  explicit I2cBus(u32 bus) : fd_(sys::open(kI2cBuses[bus], O_RDWR | O_CLOEXEC)) {}
  ~I2cBus() {
    if (fd_ >= 0) sys::close(fd_);
  }
  I2cBus(const I2cBus&) = delete;

  int fd() const { return fd_; }
  int control(unsigned long request, u32 argument) const {
    return sys::ioctl(fd_, request, reinterpret_cast<void*>(std::uintptr_t{argument}));
  }

 private:
  int fd_;
};

// Whether there is such a bus and the bytes fit into a transfer.
bool is_i2c_transfer(u32 bus, u64 bytes) { return bus < std::size(kI2cBuses) && bytes <= kI2cTransferSize; }

// Two bytes where the width is 2, one otherwise, as the driver is set.
u8* put_i2c(u8* to, u32 value, u32 width) {
  *to++ = static_cast<u8>(value);
  if (width == 2) *to++ = static_cast<u8>(value >> 8);
  return to;
}

void* map_shared(int fd, u32 len, int protection) {
  void* mapping = sys::mmap(nullptr, len, protection, MAP_SHARED, fd, 0);
  sys::close(fd);
  return mapping;
}

unsigned long number(const void* address) { return reinterpret_cast<std::uintptr_t>(address); }

}  // namespace

int himm(u32 addr, u32 value) {
  void* reg = memmap(addr, kRegisterWindow);
  if (reg == nullptr) {
    PRINT_ERROR_AT(25, "%s:memmap error.\n", "himm");
    return -1;
  }
  *static_cast<volatile u32*>(reg) = value;
  memunmap(reg);
  return 0;
}

u32 himd(u32 addr) {
  void* reg = memmap(addr, kRegisterWindow);
  if (reg == nullptr) {
    PRINT_ERROR_AT(42, "%s:memmap error.\n", "himd");
    return UINT32_MAX;
  }
  const u32 value = *static_cast<const volatile u32*>(reg);
  memunmap(reg);
  return value;
}

i32 i2c_read(u32 bus, u32 dev_addr, u32 reg_addr, u32 reg_width, u32 data_width) {
  if (!is_i2c_transfer(bus, std::max(reg_width, data_width))) return -1;
  const I2cBus i2c(bus);
  if (i2c.fd() < 0) {
    PRINT_ERROR_AT(71, "Open i2c dev error!\n");
    return -1;
  }
  i2c.control(I2C_SLAVE_FORCE, dev_addr);
  if (i2c.control(CMD_SET_REG_WIDTH, reg_width == 2) < 0) {
    PRINT_ERROR_AT(84, "CMD_SET_REG_WIDTH error!\n");
    return -1;
  }
  if (i2c.control(CMD_SET_DATA_WIDTH, data_width == 2) < 0) {
    PRINT_ERROR_AT(96, "CMD_SET_DATA_WIDTH error!\n");
    return -1;
  }
  // The chip's driver takes the register's address from the buffer that receives the data.
  u8 buffer[kI2cTransferSize] = {};
  put_i2c(buffer, reg_addr, reg_width);
  if (sys::read(i2c.fd(), buffer, reg_width) < 0) {
    PRINT_ERROR_AT(110, "CMD_I2C_READ error!\n");
    return -1;
  }
  return data_width == 2 ? get_le16(buffer) : buffer[0];
}

int i2c_write(u32 bus, u32 dev_addr, u32 reg_addr, u32 data, u32 reg_width, u32 data_width) {
  if (!is_i2c_transfer(bus, u64{reg_width} + data_width)) return -1;
  const I2cBus i2c(bus);
  if (i2c.fd() < 0) {
    PRINT_ERROR_AT(144, "Open i2c dev error!\n");
    return -1;
  }
  i2c.control(I2C_SLAVE_FORCE, dev_addr);
  i2c.control(CMD_SET_REG_WIDTH, reg_width == 2);
  const int result = i2c.control(CMD_SET_DATA_WIDTH, data_width == 2);
  u8 buffer[kI2cTransferSize] = {};
  put_i2c(put_i2c(buffer, reg_addr, reg_width), data, data_width);
  sys::write(i2c.fd(), buffer, reg_width + data_width);
  // Deliberate: the bytes are on the bus before the driver's answer is looked at.
  if (result < 0) {
    PRINT_ERROR_AT(183, "I2C_WRITE error!\n");
    return -1;
  }
  return 0;
}

void* mmapfile(const char* path, u32 len) {
  if (path == nullptr) return nullptr;
  // Deliberate: 010770, of which 0770 takes effect, less the umask.
  const int fd = sys::open(path, O_RDWR | O_CREAT | O_CLOEXEC, 010770);
  if (fd < 0) {
    PRINT_ERROR_AT(218, "Open file %s error.\n", path);
    return nullptr;
  }
  void* mapping = map_shared(fd, len, PROT_READ | PROT_WRITE);
  // Deliberate: the test is against null, so a failed mapping counts as a mapping.
  if (mapping != nullptr) {
    PRINT_ERROR_AT(228, "Memory Map OK. Map File: %s, length:%#X, addr:0x%08lX", path, len, number(mapping));
  } else {
    PRINT_INFO_AT(233, "Memory Map Failure. Map File %s, length:0x%08lX", path,
                  static_cast<unsigned long>(len));
  }
  return mapping;
}

void* mmapfile_r(const char* path, u32 len, mode_t mode) {
  if (path == nullptr) return nullptr;
  const int fd = sys::open(path, O_RDONLY | O_SYNC | O_CLOEXEC, mode);
  if (fd < 0) {
    PRINT_ERROR_AT(253, "Open file %s error.\n", path);
    return nullptr;
  }
  void* mapping = map_shared(fd, len, PROT_READ);
  if (mapping != nullptr) {
    PRINT_ERROR_AT(263, "Memory Map OK. Map File: %s, length:%#X, addr:0x%08lX\n", path, len,
                   number(mapping));
  } else {
    PRINT_INFO_AT(268, "Memory Map Failure. Map File %s, length:0x%08lX\n", path,
                  static_cast<unsigned long>(len));
  }
  return mapping;
}
