#include "uvc/uvc_gadget_stream.h"

#include "common/stream_state.h"

namespace {

i32 fed_stream;  // by its number in stream_starts

}  // namespace

void adopt_stream() { fed_stream = uvc_stream_state.stream_starts; }

bool stream_goes_on() {
  const UvcStreamState& state = uvc_stream_state;
  return state.streaming() && !state.exit_flag && state.stream_starts == fed_stream;
}
