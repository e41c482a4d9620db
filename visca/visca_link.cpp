#include "visca/visca_link.h"

#include <algorithm>
#include <cstring>

#include "ipc/msg_records.h"
#include "ipc/sys_msg_drv.h"

// The frame leaves in the buffer that takes the reply.
i32 visca_transact(const ViscaFrame& frame, u8 (&reply)[kViscaReplyRoom]) {
  std::memcpy(reply, frame.bytes, frame.length);
  i32 room = kViscaReplyRoom;
  return std::min(TransmitMsg2Sys(reply, frame.length, &room, kSysMsgVisca), kViscaReplyRoom);
}

void visca_send(const ViscaFrame& frame) {
  u8 reply[kViscaReplyRoom];
  visca_transact(frame, reply);
}
