// The simulated camera around a service: everything but the service itself.
#pragma once

#include "sim/app/parties.h"
#include "sim/host/conversation.h"
#include "sim/host/usb_host.h"
#include "sim/seam/node.h"
#include "sim/seam/run.h"

namespace sim {

struct Fault;
struct Options;

struct Camera {
  /// Faults of the options that hold from the start are set already. Without a server that brings the encoder
  /// its settings, the encoder follows what the host commits.
  explicit Camera(const Options& options);

  Run run;
  Parties parties;
  NodeHost node;
  Conversation conversation;
  UsbHost host;
};

/// Sets the fault, or ends it. Its party must be played here.
void set_fault(Camera& camera, const Fault& fault, bool on);

}  // namespace sim
