// System V message queues as the server channels use them. A record begins with its message type (a long);
// the `size` that these functions take is that of the whole record on the camera, including kMsgTypeSize.
// Results and errno are those of the underlying call unless stated otherwise. Nothing is locked here: a
// channel's driver holds its lock (sem_util.h) around a whole transaction, since replies can be distinguished
// only by process id.
#pragma once

#include <sys/types.h>

#include <cstddef>

#include "common/bytes.h"

/// Width of the message type on the camera.
constexpr std::size_t kMsgTypeSize = 4;

/// Returns the queue with this key, or -1. Creates it, readable and writable for everybody, if there is none.
i32 Msg_Init(key_t key);
/// Returns 0 or -1. While the queue is full, tries again every 5 ms until the process has to end or the
/// thread's WaitLimit has passed (ETIMEDOUT).
i32 Msg_Send(i32 qid, const void* record, std::size_t size);
/// Waits for a message of this type; the thread can be cancelled while it waits. Returns the number of bytes
/// received, or -1, also if a signal arrived and the process has to end.
ssize_t Msg_Rsv(i32 qid, long type, void* record, std::size_t size);
/// Sends the record and waits for a message of this type, which replaces it. Returns what Msg_Rsv returns, or
/// -1 if sending failed.
ssize_t Msg_Send_Rsv(i32 qid, long type, void* record, std::size_t size);
/// Returns true while a message of this type waits in the queue, where it stays. A message without payload
/// is thrown away.
bool Msg_Waits(i32 qid, long type);
/// Removes the queue. Returns 0 in every case.
i32 Msg_Kill(i32 qid);

/// Takes stale messages of this type off the queue and into the record; longer ones are thrown away. Returns
/// 0 once there is none left, or -1 after a lasting error, when the process has to end, or when the thread's
/// WaitLimit has passed.
i32 Msg_Drain(i32 qid, long type, void* record, std::size_t size);
