// UvcStreamState: the words by which the streaming loop, the control thread and the signal handlers share the
// state of stream and service. docs/threads.md names the writer and the readers of each.
#pragma once

#include "common/word.h"

struct UvcStreamState {
  Word exit_flag;         ///< 1: the service ends; set by a signal, or when the ring cannot be attached
  Word second_cnt_count;  ///< calls of second_cnt() in the running second
  Word second_cnt_sec;    ///< that second, of the wall clock
  Word stream_starts;     ///< counts the streams: a VIDIOC_STREAMON that succeeded while none ran
  Word stream_on;         ///< 1 while the host streams and VIDIOC_STREAMON has succeeded
  Word stream_stopped;    ///< 1 from a DISCONNECT to the next CONNECT or stream start
  Word connected;         ///< 1 from a CONNECT to the next DISCONNECT

  bool streaming() const { return stream_on != 0 && stream_stopped == 0; }
};
static_assert(sizeof(UvcStreamState) == 28);

extern UvcStreamState uvc_stream_state;
