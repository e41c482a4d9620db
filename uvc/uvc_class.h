// The control thread: takes the gadget node's events, answers the host's class requests, and writes the words
// of the stream state.
#pragma once

#include "common/word.h"
#include "uvc/uvc_class_control.h"
#include "uvc/uvc_waiting.h"

/// What the control thread keeps from one turn to the next.
struct UvcEventLoop {
  const Word* device;         ///< the gadget node's descriptor
  UvcRequestContext request;  ///< the last SETUP; zero before the first
  bool put_off = false;       ///< that SETUP has not been answered: the host may have given up on it
  bool looked_ahead = false;  ///< `next` was taken from the driver, but has not been served
  v4l2_event next = {};
  u32 polls_between_pauses = ::polls_between_pauses();
  u32 polls = 0;                ///< since the last pause, while streaming
  bool left_streaming = false;  ///< the stream is over, but the node has not been stopped
  u32 stop_again_in = 0;        ///< turns without an event until it is stopped again; 0: never
};

/// Thread entry; `device` is the address of the Word that holds the descriptor of the opened, non-blocking
/// node. Returns only when a subscription fails, and then null. The thread can be cancelled in its pause
/// between polls and inside a blocking receive from the system server, nowhere else.
void* uvc_class_procesing(void* device);

/// Subscribes to the six event types and announces the service to the driver. Returns 0, or prints a message
/// and returns -1.
i32 uvc_event_subscribe(UvcEventLoop& loop);

/// One turn: waits for the driver, or pauses as the stream state demands (uvc_waiting.h), then takes and
/// serves one event, if there is one. The answer to a SETUP leaves within 4.5 s of its event, whatever the
/// system server does. Hosts give up after 5 s: a SETUP that is older is answered only when no newer one
/// waits, since answers carry no tag and the driver would send this one as the newer one's.
void uvc_event_turn(UvcEventLoop& loop);
