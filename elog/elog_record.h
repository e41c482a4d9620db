// One record of the log collector's queue (System V key 0x012345AB): what the logger sends and the collector
// reads. All fields are little-endian and packed. The message type, which is as wide as the machine's long,
// comes before them and does not count towards the size sent.
#pragma once

#include <cstddef>

#include "common/bytes.h"

constexpr i32 kElogQueueKey = 0x012345AB;
constexpr i32 kElogQueueType = 1;

/// The longest line in bytes, including its newline. There is no terminating zero.
constexpr std::size_t kElogTextSize = 512;

/// Everything of a record after the message type. The size sent is kElogHeaderSize plus the length
/// of the text.
struct [[gnu::packed]] ElogPayload {
  u8 level;    ///< 0 assert, 1 error, 2 warn, 3 info, 4 debug, 5 verbose; raw lines carry 4
  u32 length;  ///< bytes of text
  char text[kElogTextSize];
};
constexpr std::size_t kElogHeaderSize = offsetof(ElogPayload, text);
static_assert(offsetof(ElogPayload, length) == 1 && kElogHeaderSize == 5);

/// The record as msgsnd and msgrcv take it.
struct [[gnu::packed]] ElogRecord {
  long type;
  ElogPayload payload;
};
static_assert(offsetof(ElogRecord, payload) == sizeof(long));
