// The parameter segment (System V key 12930021), which the system server owns. Offsets are in bytes from its
// start; integers are little-endian.
#pragma once

#include <cstddef>

#include "common/bytes.h"

/// At the start of SysInfo and of the state area once they are valid.
constexpr u32 SYSINFO_MAGIC = 0x5AC33CA5;
/// In CameraCache::valid while the cached values are valid.
constexpr u32 CAMERA_CACHE_VALID = 0x5AA555AA;

/// Also the length that the server reports for a successful write.
constexpr i32 kSysInfoLength = 2640;
constexpr std::size_t kSysStateOffset = 2640;
constexpr std::size_t kCameraCacheOffset = 2956;
constexpr std::size_t kRequestFlagsOffset = 3040;

/// Section codes: which part of SysInfo a client has changed.
enum SysInfoSection : i32 { kSectionRecords52 = 1, kSectionNetwork = 2, kSectionRecord28 = 4 };

struct SysRecord52 {
  u8 bytes[52];
};
struct SysRecord28 {
  u8 bytes[28];
};

/// The parameter record. Fields that this service never interprets are named after their offset.
struct SysInfo {
  u32 magic;  ///< SYSINFO_MAGIC once the server has filled the record
  SysRecord52 records52[4];
  SysRecord28 record28;
  u32 word240;
  u8 mac[6];
  u8 pad250[2];
  u32 word252;
  u32 word256;
  u32 word260;
  u16 web_port;  ///< mirrored into the web server's configuration file
  u16 half266;
  u16 half268;
  u16 listen_port;  ///< mirrored into /etc/srs.conf
  u16 half272;
  u16 half274;
  u16 half276;
  u8 byte278;
  u8 byte279;
  u8 pad280[4];
  u32 usb_port;  ///< USB port selection
  u8 rest[kSysInfoLength - 288];
};
static_assert(sizeof(SysInfo) == kSysInfoLength);
static_assert(offsetof(SysInfo, record28) == 212 && offsetof(SysInfo, word240) == 240);
static_assert(offsetof(SysInfo, mac) == 244 && offsetof(SysInfo, word252) == 252);
static_assert(offsetof(SysInfo, web_port) == 264 && offsetof(SysInfo, listen_port) == 270);
static_assert(offsetof(SysInfo, byte278) == 278 && offsetof(SysInfo, usb_port) == 284);

/// Camera values that the server keeps current.
struct CameraCache {
  u32 words[20];
  u32 valid;  ///< CAMERA_CACHE_VALID
};
static_assert(offsetof(CameraCache, valid) == 80);
static_assert(kCameraCacheOffset + sizeof(CameraCache) == kRequestFlagsOffset);
