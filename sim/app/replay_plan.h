// The class requests of a recorded host, sent to this service; are its answers the same?
#pragma once

#include "sim/app/session.h"

namespace sim {

/// Repeats the capture that the options name at its own pace, with pauses of a second at most. Prints each
/// request that is answered otherwise than in the capture, and keeps a finding for every one.
void replay_plan(Session& session);

}  // namespace sim
