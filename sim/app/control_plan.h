// The second table of camera_sim: the host drives the camera, and the received pictures are measured to see
// whether it obeys.
#pragma once

#include "sim/app/session.h"

namespace sim {

/// Streams MJPEG, takes every step of control_steps() and reads the version record. Prints and judges a row
/// for each; writes the pictures before and after a step to the options' folder.
void control_plan(Session& session);

}  // namespace sim
