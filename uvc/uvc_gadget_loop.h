// The streaming loop: while the host streams, every gadget buffer is dequeued, filled and queued again. The
// start and the end of a stream are announced to the system server. Main thread only.
#pragma once

#include "common/bytes.h"

/// What the loop keeps from one turn to the next.
struct StreamLoop {
  bool first_turn = true;      ///< a stream that runs in this turn was not started by the loop
  bool stopped = false;        ///< the end of the last stream has been handled
  bool need_dequeue = false;   ///< the driver owns the buffers; false right after they were queued empty
  u32 dq_fail_count = 0;       ///< failed dequeues in a row
  u32 frames_since_start = 0;  ///< buffers filled since an H.264 or H.265 stream began, 4 at most
  i32 saved_gop = 30;          ///< the key-frame interval that is restored after these
};

/// One turn: starts, feeds or ends a stream, or rests (uvc_waiting.h). A streaming turn is paced by the
/// dequeue and the frame sources alone. The first turn feeds a stream that already runs; when none runs, it
/// runs the end-of-stream steps although no stream has ended.
void stream_turn(StreamLoop& loop);
