// Client of the system-message channel: a body of at most 4096 bytes goes into this process's slot of the
// shared segment, a short record announces it to the system server, and the server's answer comes back in the
// same slot. Any thread may send once InitSysMsgDrv has returned; the driver's lock serialises the
// transactions.
#pragma once

#include "common/bytes.h"

/// Opens segment and queue for a process id of 1..24. 0, or -1 with a line on standard error.
/// Deliberate: id 1 is accepted, but has no slot (its offset is negative): not for transactions.
i32 InitSysMsgDrv(i32 process_id);
/// Closes the driver; queue and segment stay, they are the server's.
void CleanupSysMsgDrv();

/// TransmitMsg2Sys for a checked command 0..63 and a non-null buffer; else -1.
i32 SendMsg2Sys(i32 cmd, void* buffer, i32 length, i32* reply_length);

/// Sends `length` bytes of `buffer` and waits for the answer, which replaces them. `reply_length` holds the
/// buffer's capacity and becomes the answer's length; null: the answer's bytes are not wanted. An answer
/// longer than the capacity is cut and leaves *reply_length as it is. Returns the server's length (negative:
/// it failed), or -1 when sending, receiving or a copy failed, or prints an error and returns -1 when the
/// thread's WaitLimit has passed. An answer that is still owed then is never taken for a later one
/// (msg_channel.h), and the slot is left to it for a while.
/// Deliberate: a body that is too long for the slot is announced all the same, and not written.
i32 TransmitMsg2Sys(void* buffer, i32 length, i32* reply_length, i32 cmd);
