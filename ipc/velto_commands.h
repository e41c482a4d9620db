// Commands of the control-message channel, and the record that command 10 carries.
#pragma once

#include "common/bytes.h"

/// The commands whose meaning is known here; ipc/VeltoDrvMsg.h has a sender for every command.
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
constexpr i32 kVeltoWords = velto_payload_offset(24);  ///< where most commands' words begin

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
