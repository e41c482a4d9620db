// System V message queues as the server channels use them. A record begins with its message type (a long);
// the `size` that these functions take is the whole record's on the camera, kMsgTypeSize included. Results
// are those of the underlying call, with its errno, unless said otherwise. Nothing is locked here: a
// channel's driver holds its lock (sem_util.h) around a whole transaction, since replies are told apart by
// process id only.
#pragma once

#include <sys/types.h>

#include <cstddef>

#include "common/bytes.h"

/// Width of the message type on the camera.
constexpr std::size_t kMsgTypeSize = 4;

/// The queue with this key, created readable and writable for all when there is none; or -1.
i32 Msg_Init(key_t key);
/// 0 or -1. While the queue is full, tries again every 5 ms until the process is told to end or the thread's
/// WaitLimit has passed (ETIMEDOUT).
i32 Msg_Send(i32 qid, const void* record, std::size_t size);
/// Waits for a message of this type; the thread can be cancelled meanwhile. Bytes received, or -1, also when
/// a signal came and the process is told to end.
ssize_t Msg_Rsv(i32 qid, long type, void* record, std::size_t size);
/// Sends the record and waits for a message of this type, which replaces it. As Msg_Rsv, or a failed send's
/// -1.
ssize_t Msg_Send_Rsv(i32 qid, long type, void* record, std::size_t size);
/// True while a message of this type waits in the queue, where it stays; one without payload is thrown away.
bool Msg_Waits(i32 qid, long type);
/// Removes the queue. Always 0.
i32 Msg_Kill(i32 qid);

/// Takes stale messages of this type off the queue, into the record; those longer than it are thrown away.
/// 0 once there is none left; -1 on an error that does not pass, when the process is told to end, or when the
/// thread's WaitLimit has passed.
i32 Msg_Drain(i32 qid, long type, void* record, std::size_t size);
