// The descriptors of the simulated camera, as a host reads them at enumeration: one configuration with a
// video-control interface (the units of platform/uvc_units.h and output terminal 4) and a video-streaming
// interface with the formats and frame sizes of host_formats(). Layouts: USB 2.0, UVC 1.0.
#pragma once

#include <vector>

#include "common/bytes.h"

namespace sim {

std::vector<u8> device_descriptor();
std::vector<u8> configuration_descriptor();

}  // namespace sim
