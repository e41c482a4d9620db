// Sends VISCA frames to the camera head: the system server takes each one as a system message and answers
// with the head's reply. Any thread may send once InitSysMsgDrv has returned (ipc/sys_msg_drv.h).
#pragma once

#include "visca/visca_frame.h"

constexpr i32 kViscaReplyRoom = 64;  ///< bytes of a reply that are kept

/// Sends a frame and waits for the reply. Returns how many bytes of it are in `reply`, or a negative value
/// when the server refused the frame or did not answer before the thread's WaitLimit.
i32 visca_transact(const ViscaFrame& frame, u8 (&reply)[kViscaReplyRoom]);

/// Sends a frame, waits for the reply and drops it.
void visca_send(const ViscaFrame& frame);
