// Commands of the control-message channel: what each carries in its record, and the record of command 10.
#pragma once

#include <algorithm>
#include <initializer_list>
#include <iterator>

#include "common/bytes.h"

/// The commands that have names; ipc/VeltoDrvMsg.h has a sender for every command.
enum VeltoCommand : i32 {
  kVeltoGetMemory = 1,         ///< reply: physical address and size of the AV memory pool
  kVeltoEncoderSettings = 10,  ///< one-way: EncoderSettingsMessage
  kVeltoPtzMode = 256,
  kVeltoPtzNotify = 257,
  kVeltoPtzGetPosition = 258,
  kVeltoPtzMotion = 259,
  kVeltoPtzSetPosition = 260,
  kVeltoPtzGetAbsolute = 261,
};

/// Offset of a command's words from the start of VeltoMsgBuf::payload, given their offset in the record.
constexpr i32 velto_payload_offset(i32 record_offset) { return record_offset - 16; }
constexpr i32 kVeltoMemoryAddress = velto_payload_offset(16);
constexpr i32 kVeltoMemorySize = velto_payload_offset(20);
constexpr i32 kVeltoFirstWord = 24;  ///< where most commands' words begin
constexpr i32 kVeltoWords = velto_payload_offset(kVeltoFirstWord);

/// Offsets of words in the record.
struct VeltoWords {
  u8 offsets[14];
  u8 count;

  constexpr const u8* begin() const { return offsets; }
  constexpr const u8* end() const { return offsets + count; }
};
constexpr VeltoWords velto_words(std::initializer_list<u8> offsets = {}) {
  VeltoWords words = {.offsets = {}, .count = static_cast<u8>(offsets.size())};
  std::ranges::copy(offsets, words.offsets);
  return words;
}
/// The first `count` words.
constexpr VeltoWords velto_run(u8 count) {
  VeltoWords words = {.offsets = {}, .count = count};
  for (u8 i = 0; i < count; ++i) words.offsets[i] = static_cast<u8>(kVeltoFirstWord + 4 * i);
  return words;
}

constexpr VeltoWords kVeltoType = velto_words({44});
constexpr VeltoWords kVeltoSerialAndType = velto_words({28, 44});

/// What a command carries. The server answers a request; it does not answer a one-way command.
struct VeltoCommandRow {
  i32 number;
  bool request = false;
  VeltoWords in = velto_words();    ///< words that the client sends
  VeltoWords out = velto_words();   ///< words that the reply brings
  u8 first_word = kVeltoFirstWord;  ///< offset of the first word of the client's structure
  u8 text_room = 0;                 ///< bytes of text at most; it follows the words, which begin at 24 then
};

// clang-format off
constexpr VeltoCommandRow kVeltoCommands[] = {
    {.number = kVeltoGetMemory, .request = true, .out = velto_words({16, 20}), .first_word = 16},
    {.number = 2},
    {.number = 3, .request = true, .in = kVeltoType, .out = velto_run(14)},
    {.number = 4, .request = true, .in = kVeltoSerialAndType, .out = velto_run(14)},
    {.number = 5, .request = true, .in = kVeltoSerialAndType, .out = velto_words({24, 32, 36, 40, 48, 52, 56, 64, 68})},
    {.number = 6, .in = kVeltoSerialAndType},
    {.number = 7, .request = true, .in = kVeltoType, .out = velto_words({24, 32})},
    {.number = 8, .request = true, .in = kVeltoType, .out = velto_run(14)},
    {.number = 9, .request = true, .in = kVeltoType, .out = velto_words({24, 28, 32, 36, 40, 48, 52, 56, 64, 68})},
    {.number = kVeltoEncoderSettings, .in = velto_run(13)},
    {.number = 11, .in = velto_run(7)},
    {.number = 12, .in = velto_run(1)},
    {.number = 13, .in = velto_run(1)},
    {.number = 15, .in = velto_run(1)},
    {.number = 16, .in = velto_run(1)},
    {.number = 17, .in = velto_run(1)},
    {.number = 18, .in = velto_run(1)},
    {.number = 19, .in = velto_run(1)},
    {.number = 20, .request = true, .in = velto_run(1)},
    {.number = 21, .request = true, .text_room = 127},  // the record's last byte ends it
    {.number = 22, .in = velto_run(1)},
    {.number = 23, .in = velto_run(1)},
    {.number = 24, .in = velto_run(1), .text_room = 60},
    {.number = 25, .in = velto_run(1), .text_room = 60},
    {.number = 26, .in = velto_run(1)},
    {.number = 27, .in = velto_run(1)},
    {.number = kVeltoPtzMode, .in = velto_run(1)},
    {.number = kVeltoPtzNotify, .in = velto_run(1)},
    {.number = kVeltoPtzGetPosition, .request = true, .out = velto_run(1)},
    {.number = kVeltoPtzMotion, .in = velto_run(1)},
    {.number = kVeltoPtzSetPosition, .in = velto_run(3)},
    {.number = kVeltoPtzGetAbsolute, .request = true, .out = velto_run(3)},
};
// clang-format on

/// Where the text of a command begins.
constexpr i32 velto_text_offset(const VeltoCommandRow& row) { return kVeltoFirstWord + 4 * row.in.count; }

/// The row of a command; null when there is none.
constexpr const VeltoCommandRow* find_velto_command(i32 number) {
  const auto row = std::ranges::find(kVeltoCommands, number, &VeltoCommandRow::number);
  return row == std::end(kVeltoCommands) ? nullptr : row;
}

enum EncoderCodec : i32 { kCodecH264 = 0, kCodecMjpeg = 1, kCodecH265 = 2, kCodecYuy2 = 3 };

/// What the encoder is to do: the eleven words of the encoder-settings record.
struct EncoderSettings {
  i32 width;       ///< pixels
  i32 height;      ///< lines
  i32 frame_rate;  ///< frames per second
  i32 reserved;
  i32 codec;    ///< EncoderCodec
  i32 rc_mode;  ///< rate-control mode; gives the parameters their meaning, see docs/wire-formats.md
  i32 rc_param[5];
};
static_assert(sizeof(EncoderSettings) == 44);

/// The 13 words of command 10.
struct EncoderSettingsMessage {
  i32 header;   ///< always 2
  i32 running;  ///< 1: encode with these settings; 0: the stream has stopped
  EncoderSettings settings;
};
static_assert(sizeof(EncoderSettingsMessage) == 52);
