// The second table of camera_sim: the host drives the camera, and measures in the received pictures whether
// it obeys.
#pragma once

#include "sim/app/session.h"

namespace sim {

/// Streams MJPEG, takes every step of control_steps() and reads the version record. Prints a row for each and
/// judges it; the pictures before and after a step go to the options' folder.
void control_plan(Session& session);

}  // namespace sim
