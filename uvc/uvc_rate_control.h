// Rate control by codec: which parameters each mode has, and the eight bytes in which the vendor's extension
// unit reads and sets them (selector 16; docs/controls.md has their layout). The settings themselves are
// words of uvc_state.h.
#pragma once

#include "uvc/uvc_state.h"

constexpr i32 kRateModes = 4;
constexpr i32 kRateParameters = 4;  ///< at most, of one mode

/// Where a parameter is in a RateBlock. kNoParameter ends the list of a mode's parameters.
enum RateByte : u8 {
  kNoParameter = 0,
  kBitRate = 2,
  kInterval = 4,
  kQuality1 = 5,
  kQuality2 = 6,
  kQuality3 = 7
};

/// How one codec's rate control goes into the encoder's record and into a RateBlock.
struct CodecRow {
  i32 format;                                   ///< UvcFormat
  i32 codec;                                    ///< EncoderCodec
  RateControl* settings;                        ///< null: the record's rate control stays as it is
  RateByte modes[kRateModes][kRateParameters];  ///< the parameters of each mode, in their order
  u8 top_quality;                               ///< the largest kQuality1 to kQuality3
  bool has_common;    ///< the common parameter precedes the mode's own in the record
  i32 fallback_mode;  ///< what the record gets when the mode does not exist
  i32 fallback[3];    ///< the parameters of that mode
  u8 fallback_count;
  i8 fallback_default = -1;  ///< the place of default_bit_rate in the fallback, -1: none

  /// How many parameters a mode has; 0 when it does not exist.
  i32 parameters(i32 mode) const;
};

/// The row of a format or of a codec, or null.
const CodecRow* row_of_format(i32 format);
const CodecRow* row_of_codec(i32 codec);

/// Codec, mode and the mode's parameters.
struct RateBlock {
  u8 bytes[8] = {};
  bool operator==(const RateBlock&) const = default;
};

/// The committed format's settings; for a format without rate control, YUY2's codec and zeros.
RateBlock get_rate_block();

/// Stores a block in the committed format's settings. Returns false, and stores nothing, unless the block is
/// that format's, its mode exists, every parameter is in range and the spare bytes are 0.
bool store_rate_block(const RateBlock& block);
