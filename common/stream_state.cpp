#include "common/stream_state.h"

UvcStreamState uvc_stream_state;
i32 fed_stream;

bool stream_goes_on() {
  const UvcStreamState& state = uvc_stream_state;
  return state.streaming() && !state.exit_flag && state.stream_starts == fed_stream;
}
