// Client of the system-message channel: a body of at most 4096 bytes goes into this process's slot of
// the shared segment, a short record announces it to the system server, and the server's answer comes
// back in the same slot. Any thread may send once InitSysMsgDrv has returned; the driver's lock
// serialises the transactions.
#pragma once

#include "common/bytes.h"

/// Opens segment and queue for a process id of 1..24. Returns 0, or prints an error on standard error
/// and returns -1. Deliberate: id 1 is accepted, although it has no slot (its offset is negative) and
/// cannot make transactions.
i32 InitSysMsgDrv(i32 process_id);
/// Closes the driver. Queue and segment belong to the server and stay.
void CleanupSysMsgDrv();

/// Calls TransmitMsg2Sys if the command is 0..63 and the buffer is not null; otherwise returns -1.
i32 SendMsg2Sys(i32 cmd, void* buffer, i32 length, i32* reply_length);

/// Sends `length` bytes of `buffer` and waits for the answer, which replaces them. `reply_length` holds the
/// buffer's capacity and receives the answer's length; if it is null, the answer's bytes are not copied. An
/// answer longer than the capacity is cut and leaves *reply_length as it is. Returns the server's length
/// (negative if the server failed), or -1 if sending, receiving or a copy failed, or prints an error and
/// returns -1 if the thread's WaitLimit has passed. An answer that is still owed then is never taken for a
/// later one (msg_channel.h), and the slot is left to it for a while. Deliberate: a body that is too long for
/// the slot is announced nevertheless, and not written.
i32 TransmitMsg2Sys(void* buffer, i32 length, i32* reply_length, i32 cmd);
