#include "common/stream_state.h"

UvcStreamState uvc_stream_state;
