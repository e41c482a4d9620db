// MsgChannel: one channel to the system server with its account of answers.
//
// Records carry no tag: an answer is only known to be for this process. So a transaction that was given up
// leaves a debt, one answer that may come at any time, and its successor must not take that answer for its
// own. The server takes requests one after the other, in the order in which they were sent. Therefore an
// answer that comes while answers are owed is the oldest of those, until the server is seen to have taken the
// request that was sent last: what came before has then been answered, or never will be.
//
// A process that has just started has given nothing up, but the one before it may have died in the middle of
// a transaction: so one answer is owed from the start. As that is only a suspicion, an answer that would be
// thrown away for it alone is kept, and taken after all when no other follows within 500 ms.
//
// All functions are for a thread that holds the channel's lock, and keep its WaitLimit.
#pragma once

#include <sys/types.h>

#include <cstddef>

#include "common/bytes.h"
#include "common/wait_limit.h"

struct MsgChannel {
  key_t key = 0;
  i32 process = 0;  ///< this process's id on the channel: the message type of its answers
  i32 queue = -1;
  u32 owed = 1;                                  ///< answers that still belong to former transactions
  WaitLimit::Clock::time_point owed_since = {};  ///< when the last of their requests was sent; 0: a suspicion
};

/// Before a record is filled: throws away what has come of the owed answers.
void Msg_Settle(MsgChannel& channel);

/// The same, and waits until `end` for those that have not come.
void Msg_AwaitOwed(MsgChannel& channel, WaitLimit::Clock::time_point end);

/// Sends a record that has no answer. Returns 0 or -1. A queue that the server has removed and made anew is
/// found again, here and in Msg_Transact.
i32 Msg_Notify(MsgChannel& channel, const void* record, std::size_t size);

/// A transaction on a filled record: drains stale answers, sends it and waits for its answer, which replaces
/// it. Returns the answer's bytes, or -1; with errno ETIMEDOUT when the limit passed: the answer is owed
/// then. Deliberate: the drain receives into the very record that is then sent, so a stale answer that nobody
/// is owed takes the request's place, and, addressed to this process, comes back as the answer.
ssize_t Msg_Transact(MsgChannel& channel, void* record, std::size_t size);
