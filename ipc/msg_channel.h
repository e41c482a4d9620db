// MsgChannel: one channel to the system server and its account of answers.
//
// Records carry no tag: an answer only shows that it is for this process. So a transaction that was given up
// leaves a debt, one answer that may come at any time, and the next transaction must not take that answer for
// its own. The server takes requests one after the other, in the order in which they were sent. Therefore an
// answer that comes while answers are owed is the oldest of those, until the server is seen to have taken the
// request that was sent last: everything before it has then been answered, or never will be.
//
// A process that has just started has given nothing up, but the one before it may have died in the middle
// of a transaction, so one answer is owed from the start. Since that is only a suspicion, an answer that
// would be thrown away for this reason alone is kept, and is used after all if no other answer follows
// within 500 ms. The same holds for a debt that is 8 s old: its answer was most likely lost.
//
// All functions must be called by a thread that holds the channel's lock, and they keep its WaitLimit.
#pragma once

#include <sys/types.h>

#include <chrono>
#include <cstddef>

#include "common/bytes.h"
#include "common/wait_limit.h"

struct MsgChannel {
  key_t key = 0;
  i32 process = 0;  ///< this process's id on the channel: the message type of its answers
  i32 queue = -1;
  /// How many answers still belong to former transactions.
  u32 owed = 1;
  /// Whether one of these may not exist.
  bool suspected = true;
  /// When the last of their requests was sent; 0 while only the suspected one is left.
  WaitLimit::Clock::time_point owed_since = {};
};

/// How long an answer may be late.
constexpr std::chrono::seconds kOwedPatience{8};

/// Throws away those owed answers that have come. Called before a record is filled.
void Msg_Settle(MsgChannel& channel);

/// The same, and waits until `end` for the answers that have not come.
void Msg_AwaitOwed(MsgChannel& channel, WaitLimit::Clock::time_point end);

/// Sends a record that has no answer. Returns 0 or -1. Like Msg_Transact, finds a queue that the server has
/// removed and created again.
i32 Msg_Notify(MsgChannel& channel, const void* record, std::size_t size);

/// Makes a transaction with a filled record: drains stale answers, sends the record and waits for its answer,
/// which replaces it. Returns the size of the answer in bytes, or -1; errno is ETIMEDOUT if the limit passed,
/// and the answer is then owed. Deliberate: the drain receives into the very record that is then sent, so a
/// stale answer that is not owed takes the place of the request and, being addressed to this process, comes
/// back as the answer.
ssize_t Msg_Transact(MsgChannel& channel, void* record, std::size_t size);
