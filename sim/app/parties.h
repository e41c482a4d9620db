// The outside parties of the camera: all processes that stand around the service, with the head that they
// move, but neither the gadget node nor a host.
#pragma once

#include "sim/media/media.h"
#include "sim/parties/camera_head.h"
#include "sim/parties/collector.h"
#include "sim/parties/server.h"

namespace sim {

struct Fault;

struct Parties {
  Parties(MediaOptions media_options, const CollectorOptions& collector_options);

  CameraHead head;
  Media media;
  Server server;
  Collector collector;
};

/// Sets the fault, or ends it. False: it is none of these parties', but the node's or the cable's.
bool set_fault(Parties& parties, const Fault& fault, bool on);

}  // namespace sim
