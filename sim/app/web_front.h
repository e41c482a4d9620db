// The page of camera_sim: shows the camera in browsers on this PC, and takes commands from them and from
// scripts, while the service runs.
#pragma once

#include "sim/app/session.h"

namespace sim {

/// Serves the page until a signal comes. Prints its address.
void web(Session& session);

}  // namespace sim
