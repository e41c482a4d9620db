#include "uvc/uvc_rate_control.h"

#include <algorithm>
#include <iterator>

namespace {

// clang-format off
constexpr CodecRow kCodecs[] = {
    {.format = kFormatMjpeg, .codec = kCodecMjpeg, .settings = &mjpeg_rate_control,
     .modes = {{kBitRate}, {kBitRate, kQuality1, kQuality2}, {kQuality1}, {}},
     .top_quality = 100, .has_common = false,
     .fallback_mode = 1, .fallback = {20480, 99, 60}, .fallback_count = 3},
    {.format = kFormatH264, .codec = kCodecH264, .settings = &h264_rate_control,
     .modes = {{kInterval, kBitRate}, {kInterval, kBitRate, kQuality1, kQuality2},
               {kInterval, kQuality1, kQuality2, kQuality3}, {kInterval, kBitRate}},
     .top_quality = 51, .has_common = true,
     .fallback_mode = 0, .fallback = {1, 0, 2048}, .fallback_count = 3, .fallback_default = 1},
    {.format = kFormatYuy2, .codec = kCodecYuy2, .settings = nullptr,
     .modes = {},
     .top_quality = 0, .has_common = false,
     .fallback_mode = 0, .fallback = {}, .fallback_count = 0},
    {.format = kFormatH265, .codec = kCodecH265, .settings = &h265_rate_control,
     .modes = {{kInterval, kBitRate}, {kInterval, kBitRate, kQuality1, kQuality2},
               {kInterval, kQuality1, kQuality2}, {kInterval, kBitRate}},
     .top_quality = 51, .has_common = false,
     .fallback_mode = 0, .fallback = {0, 2048}, .fallback_count = 2, .fallback_default = 0},
};
// clang-format on

const CodecRow* row_with(i32 CodecRow::*member, i32 value) {
  const auto row = std::find_if(std::begin(kCodecs), std::end(kCodecs),
                                [&](const CodecRow& candidate) { return candidate.*member == value; });
  return row == std::end(kCodecs) ? nullptr : row;
}

// The parameters of a mode in their order; the rest are 0.
struct RateParameters {
  i32 values[kRateParameters] = {};
};

RateBlock pack(const CodecRow& row, i32 mode, const RateParameters& parameters) {
  RateBlock block = {{static_cast<u8>(row.codec), static_cast<u8>(mode)}};
  for (i32 i = 0; i < row.parameters(mode); ++i) {
    const RateByte at = row.modes[mode][i];
    if (at == kBitRate)
      put_le16(block.bytes + at, static_cast<u16>(std::min(parameters.values[i], 0xFFFF)));
    else
      block.bytes[at] = static_cast<u8>(std::min(parameters.values[i], 0xFF));
  }
  return block;
}

RateParameters unpack(const CodecRow& row, i32 mode, const RateBlock& block) {
  RateParameters parameters;
  for (i32 i = 0; i < row.parameters(mode); ++i) {
    const RateByte at = row.modes[mode][i];
    parameters.values[i] = at == kBitRate ? get_le16(block.bytes + at) : i32{block.bytes[at]};
  }
  return parameters;
}

bool in_range(const CodecRow& row, i32 mode, const RateParameters& parameters) {
  for (i32 i = 0; i < row.parameters(mode); ++i) {
    const RateByte at = row.modes[mode][i];
    const i32 value = parameters.values[i];
    if (at >= kQuality1 && value > row.top_quality) return false;
    if ((at == kBitRate || at == kInterval) && value == 0) return false;
  }
  return true;
}

// Unpacking and packing gives the same block only when it is the codec's and its spare bytes are 0.
bool fits(const CodecRow& row, const RateBlock& block) {
  const i32 mode = block.bytes[1];
  if (row.parameters(mode) == 0) return false;
  const RateParameters parameters = unpack(row, mode, block);
  return in_range(row, mode, parameters) && pack(row, mode, parameters) == block;
}

}  // namespace

i32 CodecRow::parameters(i32 mode) const {
  if (mode < 0 || mode >= kRateModes) return 0;
  return static_cast<i32>(std::find(modes[mode], std::end(modes[mode]), kNoParameter) - modes[mode]);
}

const CodecRow* row_of_format(i32 format) { return row_with(&CodecRow::format, format); }

const CodecRow* row_of_codec(i32 codec) { return row_with(&CodecRow::codec, codec); }

RateBlock get_rate_block() {
  const CodecRow* row = row_of_format(cur_format);
  if (!row || !row->settings) return {{kCodecYuy2}};
  const i32 mode = row->settings->mode;
  RateParameters parameters;
  std::copy_n(row->settings->param[mode], kRateParameters, parameters.values);
  return pack(*row, mode, parameters);
}

bool store_rate_block(const RateBlock& block) {
  const CodecRow* row = row_of_format(cur_format);
  if (!row || !fits(*row, block)) return false;
  const i32 mode = block.bytes[1];
  const RateParameters parameters = unpack(*row, mode, block);
  std::copy_n(parameters.values, row->parameters(mode), row->settings->param[mode]);
  row->settings->mode = mode;
  return true;
}
