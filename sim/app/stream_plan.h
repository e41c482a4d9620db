// The first table of camera_sim: streams, each for its time, and what the host found in them.
#pragma once

#include "sim/app/session.h"

namespace sim {

/// Streams what the options ask for: one stream, or six with an unplugged cable among them. Prints a row for
/// each and judges it; received pictures go to the options' folder.
void stream_plan(Session& session);

}  // namespace sim
