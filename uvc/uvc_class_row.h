// The row types of the class requests: a control is a row, a unit is its rows. Camera, streaming and vendor
// fill the tables; the handlers of uvc_class_control.h look them up.
#pragma once

#include <initializer_list>
#include <span>

#include "common/bytes.h"

/// Request status, as stored in uvc_request_error_code.
enum UvcStatus : u8 {
  kNoError = 0,
  kOutOfRange = 4,
  kInvalidUnit = 5,
  kInvalidControl = 6,
  kWrongInterface = 255,
};

constexpr u8 kVideoControlInterface = 0;
constexpr u8 kVideoStreamingInterface = 1;

constexpr u8 kInfoGetSet = 3;  ///< GET_INFO: GET and SET supported

/// What a request without a function of its own answers: bytes for the answer buffer (constant, or read from
/// `live` when the request comes), a status, and perhaps a message at level info.
struct Reply {
  u8 bytes[8] = {};
  u8 count = 0;
  const void* live = nullptr;
  UvcStatus status = kInvalidControl;
  bool keeps_status = false;  ///< the status of the previous request stays
  const char* message = nullptr;
  bool names_selector = false;  ///< the selector follows the message, in hexadecimal
};

constexpr Reply reply_bytes(std::initializer_list<u8> bytes) {
  Reply reply = {.count = static_cast<u8>(bytes.size()), .status = kNoError};
  u8* to = reply.bytes;
  for (u8 byte : bytes) *to++ = byte;
  return reply;
}
constexpr Reply reply_word(u16 value) {
  return reply_bytes({static_cast<u8>(value), static_cast<u8>(value >> 8)});
}
constexpr Reply reply_longs(i32 first, i32 second) {
  Reply reply = {.count = 8, .status = kNoError};
  put_le32(reply.bytes, static_cast<u32>(first));
  put_le32(reply.bytes + 4, static_cast<u32>(second));
  return reply;
}
constexpr Reply reply_long(i32 value) {
  Reply reply = reply_longs(value, 0);
  reply.count = 4;
  return reply;
}
/// The number that a constant answer of at most 4 bytes stands for.
constexpr u32 reply_value(const Reply& reply) { return get_le32(reply.bytes); }
constexpr Reply reply_live(const void* from, u8 count) {
  return {.count = count, .live = from, .status = kNoError};
}
constexpr Reply reply_message(const char* text) { return {.keeps_status = true, .message = text}; }
constexpr Reply with_message(Reply reply, const char* text) {
  reply.message = text;
  return reply;
}
constexpr Reply kReplyNothing = {.status = kNoError};
constexpr Reply kReplyInvalid = {.status = kInvalidControl};

struct Control;
/// Writes the answer to GET_CUR into uvc_resp_buf, or reads the data of SET_CUR from it.
using ControlFunction = UvcStatus (*)(const Control&);

constexpr i8 kNotCached = -1;

struct Control {
  u8 selector = 0;
  Reply len = kReplyNothing;
  Reply info = kReplyInvalid;
  Reply min = kReplyInvalid;
  Reply max = kReplyInvalid;
  Reply res = kReplyInvalid;
  Reply def = kReplyInvalid;
  ControlFunction get_cur = nullptr;  ///< null: cur answers GET_CUR
  Reply cur = kReplyInvalid;
  ControlFunction set_cur = nullptr;  ///< null: invalid control
  u8* stored = nullptr;               ///< the current value, as many bytes as `cur` gives
  u8 visca = 0;                       ///< command byte of its frames
  i8 cache = kNotCached;              ///< its word in the camera-value cache
};

constexpr i32 kAnyEntity = -1;

struct Unit {
  u8 interface;
  i32 entity;  ///< or kAnyEntity
  std::span<const Control> controls;
  Control other;  ///< answers every selector that has no row
};
