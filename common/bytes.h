// Fixed-width names used everywhere, and little-endian access to byte buffers.
#pragma once

#include <cstdint>

using u8 = std::uint8_t;
using u16 = std::uint16_t;
using u32 = std::uint32_t;
using u64 = std::uint64_t;
using i8 = std::int8_t;
using i16 = std::int16_t;
using i32 = std::int32_t;
using i64 = std::int64_t;

constexpr u16 get_le16(const u8* from) { return static_cast<u16>(from[0] | from[1] << 8); }

constexpr u32 get_le32(const u8* from) { return get_le16(from) | static_cast<u32>(get_le16(from + 2)) << 16; }

constexpr void put_le16(u8* to, u16 value) {
  to[0] = static_cast<u8>(value);
  to[1] = static_cast<u8>(value >> 8);
}

constexpr void put_le32(u8* to, u32 value) {
  put_le16(to, static_cast<u16>(value));
  put_le16(to + 2, static_cast<u16>(value >> 16));
}
