// The first table of camera_sim: the streams, and what the host found in them.
#pragma once

#include "sim/app/session.h"

namespace sim {

/// Streams what the options request: one stream, or six, with the cable pulled in one of them. Prints and
/// judges a row for each; writes received pictures to the options' folder. What is received goes to `copy` as
/// well, unless it is null.
void stream_plan(Session& session, std::ostream* copy);

}  // namespace sim
