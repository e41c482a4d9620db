// One record of the log collector's queue (System V key 0x012345AB): what the logger sends and the collector
// reads. All fields are little-endian and packed; the message type, which is as wide as the machine's long,
// stands before them and does not count in the sent size.
#pragma once

#include <cstddef>

#include "common/bytes.h"

constexpr i32 kElogQueueKey = 0x012345AB;
constexpr i32 kElogQueueType = 1;

constexpr std::size_t kElogTextSize = 512;  ///< longest line, its newline included; no terminating zero

/// Everything of a record behind the message type. The size sent is kElogHeaderSize plus the text's length.
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
