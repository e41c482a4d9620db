// The tables behind the class requests: a control is a row, a unit is its rows, and each of the eight
// handlers is one line over them. Control thread only.
#pragma once

#include <initializer_list>
#include <span>

#include "platform/uvc_events.h"

/// Request status, as stored in uvc_request_error_code.
enum UvcStatus : u8 {
  kNoError = 0,
  kOutOfRange = 4,
  kInvalidUnit = 5,
  kInvalidControl = 6,
  kWrongInterface = 255,
};

enum UvcRequestCode : u8 {
  UVC_SET_CUR = 0x01,
  UVC_GET_CUR = 0x81,
  UVC_GET_MIN = 0x82,
  UVC_GET_MAX = 0x83,
  UVC_GET_RES = 0x84,
  UVC_GET_LEN = 0x85,
  UVC_GET_INFO = 0x86,
  UVC_GET_DEF = 0x87,
};

constexpr u8 kVideoControlInterface = 0;
constexpr u8 kVideoStreamingInterface = 1;

constexpr u8 kInfoGetSet = 3;  ///< GET_INFO: GET and SET supported

/// One class request: the setup packet, and the record for its answer or its data stage.
struct UvcRequestContext {
  u8 bRequestType;
  u8 bRequest;
  u16 wValue;   ///< high byte: selector
  u16 wIndex;   ///< low byte: interface; high byte: entity
  u16 wLength;  ///< bytes that the host asked for, or sends
  UvcRequestData data;

  u8 selector() const { return static_cast<u8>(wValue >> 8); }
  u8 interface() const { return static_cast<u8>(wIndex); }
  u8 entity() const { return static_cast<u8>(wIndex >> 8); }
};

/// What a request without own behaviour answers: bytes for the answer buffer (constant, or read from `live`
/// when the request comes), a status, perhaps a message at level info.
struct Reply {
  u8 bytes[8] = {};
  u8 count = 0;
  const void* live = nullptr;
  UvcStatus status = kInvalidControl;
  bool keeps_status = false;  ///< the status of the request before stays
  const char* message = nullptr;
  bool names_selector = false;  ///< the message goes on with the selector, in hexadecimal
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
/// The number that a constant answer of at most 4 bytes is.
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
/// Writes uvc_resp_buf (GET_CUR) or reads it (SET_CUR).
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

/// Every unit that answers: camera terminal, processing unit, extension unit, streaming interface.
std::span<const Unit> uvc_units();

/// The handlers: find the row, write the answer into uvc_resp_buf or take the data from it, store the status
/// in uvc_request_error_code and return it. A control finds its data 8 bytes long at least: what the host did
/// not send is 0.
u32 uvc_getcur(UvcRequestContext* request);
u32 uvc_getmin(UvcRequestContext* request);
u32 uvc_getmax(UvcRequestContext* request);
u32 uvc_getres(UvcRequestContext* request);
u32 uvc_getlen(UvcRequestContext* request);
u32 uvc_getinfo(UvcRequestContext* request);
u32 uvc_getdef(UvcRequestContext* request);
u32 uvc_setcur(UvcRequestContext* request);
