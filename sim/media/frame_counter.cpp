#include "sim/media/frame_counter.h"

#include <cstring>

namespace sim {

namespace {

constexpr u32 kCheckBits = 8;
constexpr u8 kBlack = 16, kWhite = 235, kGrey = 128;

u64 cells_of(u32 counter) {
  const u32 check = (counter * 2654435761u >> 24) ^ 0x5A;
  return static_cast<u64>(counter) << kCheckBits | check;
}

bool cell_bit(u64 cells, u32 index) { return cells >> (kCells - 1 - index) & 1; }

void burn_strip(AVFrame& picture, u64 cells, u32 first_row, u32 cell) {
  for (u32 row = first_row; row < first_row + cell; ++row) {
    u8* luma = picture.data[0] + row * picture.linesize[0];
    for (u32 i = 0; i < kCells; ++i) std::memset(luma + i * cell, cell_bit(cells, i) ? kWhite : kBlack, cell);
  }
  for (u32 row = first_row / 2; row < (first_row + cell) / 2; ++row) {
    for (int plane : {1, 2})
      std::memset(picture.data[plane] + row * picture.linesize[plane], kGrey, kCells * cell / 2);
  }
}

}  // namespace

void burn_counter(AVFrame& picture, u32 counter) {
  const u32 cell = strip_height(picture.width);
  burn_strip(picture, cells_of(counter), 0, cell);
  burn_strip(picture, cells_of(counter), picture.height - cell, cell);
}

namespace {

// The middle quarter of the cell decides, because compression damages its edges most.
bool cell_is_white(const LumaView& picture, u32 x, u32 y, u32 cell) {
  u32 sum = 0, count = 0;
  for (u32 row = y + cell / 4; row < y + cell - cell / 4; ++row) {
    for (u32 column = x + cell / 4; column < x + cell - cell / 4; ++column, ++count)
      sum += picture.data[row * picture.stride + column * picture.step];
  }
  return sum > count * ((kBlack + kWhite) / 2);
}

}  // namespace

std::optional<u32> read_counter(const LumaView& picture, Strip strip) {
  const u32 cell = strip_height(picture.width);
  if (cell == 0 || picture.height < 2 * cell) return std::nullopt;
  const u32 y = strip == Strip::kTop ? 0 : picture.height - cell;
  u64 cells = 0;
  for (u32 i = 0; i < kCells; ++i) cells = cells << 1 | cell_is_white(picture, i * cell, y, cell);
  const u32 counter = static_cast<u32>(cells >> kCheckBits);
  if (cells != cells_of(counter)) return std::nullopt;
  return counter;
}

}  // namespace sim
