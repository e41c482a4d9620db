// The request and reply records of the three system-server channels, and the keys of their queues and
// segments. All fields are 32-bit little-endian; the message type is 4 bytes wide on the camera, too, but 8
// on a 64-bit PC. Payload sizes are what msgsnd and msgrcv take: all bytes after the message type.
#pragma once

#include <cstddef>

#include "common/bytes.h"

constexpr i32 kFileMsgKey = 12930021;  ///< system parameters: queue and parameter segment
constexpr i32 kVeltoMsgKey = 152421;   ///< control messages: queue
constexpr i32 kSysMsgKey = 14073;      ///< system messages: queue and slot segment

constexpr long kServerMsgType = 1;  ///< message type of every request; a reply carries the requester's id

constexpr std::size_t kFileMsgPayload = 28;
constexpr std::size_t kSysMsgPayload = 16;
constexpr std::size_t kVeltoMsgPayload = 148;

enum FileMsgCommand : i32 {
  kFileMsgNotice = 0,
  kFileMsgWritten = 1,
  kFileMsgReset = 2,
  kFileMsgSaveDefaults = 3,
};

/// System-parameter channel.
struct FileMsgBuf {
  long dest;
  i32 cmd;     ///< FileMsgCommand
  i32 src;     ///< requester's process id
  i32 shmid;   ///< the parameter segment as the requester knows it
  i32 length;  ///< 0 in a request; in a reply, kSysInfoLength means success
  i32 info;    ///< section code for kFileMsgWritten, else 0
  i32 unused[2];
};

constexpr i32 kSysMsgVisca = 39;  ///< SysMsgBuf::cmd: the slot carries a VISCA frame, then its reply

/// System-message channel.
struct SysMsgBuf {
  long dest;
  i32 cmd;     ///< 0..63
  i32 src;     ///< requester's process id, 2..24
  i32 length;  ///< request: bytes put into the slot; reply: bytes put there by the server, negative: failure
  i32 offset;  ///< offset of the requester's slot in the segment
};

/// Control-message channel. Offsets in velto_commands.h count from the record's start on the camera.
struct VeltoMsgBuf {
  long dest;
  i32 cmd;
  i32 src;  ///< requester's process id in request/reply commands, 0 in one-way commands
  i32 ret;  ///< reply status, 0 is success
  u8 payload[136];
};

static_assert(offsetof(FileMsgBuf, cmd) == sizeof(long) && offsetof(FileMsgBuf, info) == sizeof(long) + 16);
static_assert(sizeof(FileMsgBuf) >= sizeof(long) + kFileMsgPayload);
static_assert(offsetof(SysMsgBuf, offset) == sizeof(long) + 12);
static_assert(sizeof(SysMsgBuf) == sizeof(long) + kSysMsgPayload);
static_assert(offsetof(VeltoMsgBuf, payload) == sizeof(long) + 12);
static_assert(offsetof(VeltoMsgBuf, payload) + sizeof(VeltoMsgBuf::payload) ==
              sizeof(long) + kVeltoMsgPayload);
#if defined(__arm__)
static_assert(sizeof(FileMsgBuf) == 32 && sizeof(SysMsgBuf) == 20 && sizeof(VeltoMsgBuf) == 152);
#endif

/// Geometry of the system-message segment: one slot per process id, starting with id 2.
constexpr i32 kSysSegmentSize = 102400;
constexpr i32 kSysSlotSize = 4096;
constexpr i32 sys_slot_offset(i32 process_id) { return (process_id - 2) * kSysSlotSize; }
static_assert(sys_slot_offset(15) == 53248);

/// Process ids of this service on the three channels.
constexpr i32 kSysMsgProcess = 15;
constexpr i32 kFileMsgProcess = 16;
constexpr i32 kVeltoProcess = 3;
