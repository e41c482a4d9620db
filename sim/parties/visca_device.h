// The camera's end of VISCA: decodes a frame, carries it out on the head and the picture settings, and
// answers as the system server does.
#pragma once

#include <span>
#include <vector>

#include "sim/parties/camera_head.h"

namespace sim {

/// The answer to an inquiry is the value as a 32-bit little-endian word, already taken out of the protocol's
/// frame. The answer to a command is the protocol's own: 90 41 FF accepted, 90 60 01 FF wrong length, 90 60
/// 02 FF not understood, 90 61 41 FF a value that the camera does not have.
struct ViscaAnswer {
  std::vector<u8> bytes;
  bool refused = false;  ///< one of the three errors
};

/// `frame` may contain any bytes. Exposure mode answers 0 when it is automatic, white-balance mode answers 1.
ViscaAnswer obey_visca(CameraHead& head, std::span<const u8> frame);

}  // namespace sim
