// The USB host on the emulated board: the kernel's uvcvideo must have brought a camera up, and every class
// request of every control must be answered. uvcvideo knows the controls of the descriptors only, so the
// requests go past it.
#include <fcntl.h>
#include <linux/usbdevice_fs.h>
#include <linux/videodev2.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <string>
#include <vector>

#include "common/bytes.h"

namespace {

enum Request : u8 {
  kSetCur = 0x01,
  kGetCur = 0x81,
  kGetMin,
  kGetMax,
  kGetRes,
  kGetLen,
  kGetInfo,
  kGetDef,
};
enum Entity : u8 { kCamera = 1, kImage = 2, kExtension = 3 };

struct Unit {
  const char* name;
  Entity entity;
  u8 last_selector;
};
constexpr Unit kUnits[] = {
    {"camera terminal", kCamera, 15}, {"image controls", kImage, 14}, {"extension unit", kExtension, 28}};

struct Limits {
  const char* name;
  Entity entity;
  u8 selector;
  u8 length;
  i32 lowest, highest;
};
constexpr Limits kLimits[] = {
    {"brightness", kImage, 2, 2, 0, 15},         {"gain", kImage, 4, 2, 4, 15},
    {"temperature", kImage, 10, 2, 1800, 10000}, {"exposure", kCamera, 4, 4, 1, 10000},
    {"zoom", kCamera, 11, 2, 0, 0x4000},
};

int failed;

void fail(const std::string& what) {
  std::printf("host: %s: %s\n", what.c_str(), std::strerror(errno));
  failed++;
}

bool uvcvideo_has_a_camera() {
  const int fd = open("/dev/video1", O_RDWR | O_CLOEXEC);
  v4l2_capability capability{};
  v4l2_fmtdesc format{};
  format.type = V4L2_BUF_TYPE_VIDEO_CAPTURE;
  const bool found =
      fd >= 0 && ioctl(fd, VIDIOC_QUERYCAP, &capability) == 0 && ioctl(fd, VIDIOC_ENUM_FMT, &format) == 0;
  if (found) std::printf("host: %s: %s, %s\n", capability.driver, capability.card, format.description);
  if (fd >= 0) close(fd);
  return found && std::strcmp(reinterpret_cast<const char*>(capability.driver), "uvcvideo") == 0;
}

/// The device itself, taken from uvcvideo; -1 when it cannot be had.
int take_device(const char* path) {
  const int fd = open(path, O_RDWR | O_CLOEXEC);
  for (int interface = 0; interface < 2; interface++) {
    usbdevfs_ioctl release{interface, USBDEVFS_DISCONNECT, nullptr};
    if (ioctl(fd, USBDEVFS_IOCTL, &release) < 0 && errno != ENODATA) return -1;
  }
  return fd;
}

/// The answer's length, negative when the device stalls.
int request(int fd, u8 code, Entity entity, u8 selector, void* data, u16 length) {
  usbdevfs_ctrltransfer transfer{static_cast<u8>(code & 0x80 ? 0xA1 : 0x21),
                                 code,
                                 static_cast<u16>(selector << 8),
                                 static_cast<u16>(entity << 8),
                                 length,
                                 2000,
                                 data};
  return ioctl(fd, USBDEVFS_CONTROL, &transfer);
}

void ask_everything(int fd, const Unit& unit) {
  int answered = 0;
  for (u8 selector = 1; selector <= unit.last_selector; selector++) {
    for (u8 code = kGetCur; code <= kGetDef; code++) {
      u8 data[60];
      if (request(fd, code, unit.entity, selector, data, sizeof data) > 0) {
        answered++;
      } else {
        fail(std::string(unit.name) + " selector " + std::to_string(selector) + " request " +
             std::to_string(code));
      }
    }
  }
  std::printf("host: %s: %d requests answered\n", unit.name, answered);
}

void compare_limits(int fd, const Limits& wanted) {
  i32 lowest = 0, highest = 0;
  const bool answered =
      request(fd, kGetMin, wanted.entity, wanted.selector, &lowest, wanted.length) == wanted.length &&
      request(fd, kGetMax, wanted.entity, wanted.selector, &highest, wanted.length) == wanted.length;
  errno = 0;
  if (!answered || lowest != wanted.lowest || highest != wanted.highest) {
    fail(std::string(wanted.name) + " goes from " + std::to_string(lowest) + " to " +
         std::to_string(highest));
  }
}

void set_and_read_back(int fd) {
  for (u16 brightness : {15, 3}) {
    u16 read = 0xFFFF;
    if (request(fd, kSetCur, kImage, 2, &brightness, 2) != 2 ||
        request(fd, kGetCur, kImage, 2, &read, 2) != 2 || read != brightness) {
      fail("brightness " + std::to_string(brightness) + " reads " + std::to_string(read));
    }
  }
}

}  // namespace

int main(int argc, char** argv) {
  if (argc != 2) return 2;
  if (!uvcvideo_has_a_camera()) fail("uvcvideo has no camera");
  const int fd = take_device(argv[1]);
  if (fd < 0) return fail(argv[1]), 1;
  for (const Unit& unit : kUnits) ask_everything(fd, unit);
  for (const Limits& limits : kLimits) compare_limits(fd, limits);
  set_and_read_back(fd);
  return failed ? 1 : 0;
}
