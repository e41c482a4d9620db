// The control event thread: dequeues the gadget node's events, answers the host's class requests, and keeps
// the stream-state words.
#pragma once

#include "common/word.h"
#include "uvc/uvc_class_control.h"

/// What the thread keeps from one turn to the next.
struct UvcEventLoop {
  const Word* device;         ///< the gadget node's descriptor
  UvcRequestContext request;  ///< the last SETUP; zero before the first
  bool put_off = false;       ///< that SETUP has not been answered: its host may have given it up
  bool looked_ahead = false;  ///< `next` was taken from the driver, but not served
  v4l2_event next = {};
  u32 polls = 0;                ///< since the last pause, while streaming
  bool left_streaming = false;  ///< the stream is over, but the node has not been stopped
  u32 stop_again_in = 0;        ///< turns without an event until it is told again to stop; 0: it is not
};

/// Thread entry; `device` is the address of the Word that holds the descriptor of the opened, non-blocking
/// node. Returns null, and only when a subscription fails. The thread can be cancelled at its pause between
/// polls and inside a blocking receive from the system server, nowhere else.
void* uvc_class_procesing(void* device);

/// Subscribes to the six event types and tells the driver that the service is there. 0, or -1 after a report.
i32 uvc_event_subscribe(UvcEventLoop& loop);

/// One turn: pauses as the stream state wants it, then takes and serves one event, if there is one. The
/// answer to a SETUP leaves within 4.5 s of its event, whatever the system server does. A SETUP that is older
/// than the 5 s after which a host gives up is answered only when no newer one waits: the driver knows no
/// tags, and would send its answer as the newer one's.
void uvc_event_turn(UvcEventLoop& loop);
