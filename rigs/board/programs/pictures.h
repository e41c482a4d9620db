// The pictures of the emulated board's camera, which both ends of the bus can compute from their number.
#pragma once

#include <vector>

#include "common/bytes.h"

namespace board {

/// Pixels 0 to 7 of the first row carry the picture's number, four bits each.
inline u8 luma(u32 number, u32 column, u32 row) {
  if (row == 0 && column < 8) return static_cast<u8>(16 + 8 * (number >> 4 * column & 15));
  return static_cast<u8>(16 + (3 * column + 5 * row + 7 * number) % 220);
}
/// One value for each 2 x 2 pixels.
inline u8 blue(u32 number, u32 column, u32 row) { return static_cast<u8>(column + 2 * row + number); }
inline u8 red(u32 number, u32 column, u32 row) { return static_cast<u8>(128 + 3 * column + row - number); }

inline u32 yuy2_number(const u8* payload) {
  u32 number = 0;
  for (u32 column = 0; column < 8; ++column) number |= (payload[2 * column] / 8u - 2) << 4 * column;
  return number;
}

inline std::vector<u8> yuy2_picture(u32 number, u32 width, u32 height) {
  std::vector<u8> picture;
  picture.reserve(2 * width * height);
  for (u32 row = 0; row < height; ++row) {
    for (u32 column = 0; column < width; column += 2) {
      for (const u8 byte : {luma(number, column, row), blue(number, column / 2, row / 2),
                            luma(number, column + 1, row), red(number, column / 2, row / 2)}) {
        picture.push_back(byte);
      }
    }
  }
  return picture;
}

/// Returns JPEG markers around a comment with the number, and arbitrary bytes instead of an image, since
/// nothing on the way decodes it. The size changes from picture to picture.
inline std::vector<u8> jpeg_picture(u32 number) {
  std::vector<u8> picture = {0xFF, 0xD8, 0xFF, 0xFE, 0, 6};
  for (u32 shift = 0; shift < 32; shift += 8) picture.push_back(static_cast<u8>(number >> shift));
  const u32 size = 40'000 + number % 9 * 3'001;
  for (u32 i = 0, byte = number; i < size; ++i)
    picture.push_back(static_cast<u8>((byte = byte * 69069 + 1) >> 25));
  picture.insert(picture.end(), {0xFF, 0xD9});
  return picture;
}
inline u32 jpeg_number(const u8* payload) {
  return payload[6] | payload[7] << 8 | payload[8] << 16 | u32{payload[9]} << 24;
}

}  // namespace board
