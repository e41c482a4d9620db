// The simulated camera around a service: everything but the service itself.
#pragma once

#include "sim/conversation.h"
#include "sim/fault_script.h"
#include "sim/node.h"
#include "sim/options.h"
#include "sim/parties.h"
#include "sim/run.h"
#include "sim/usb_host.h"

namespace sim {

struct Camera {
  /// Faults of the options that hold from the start are set already.
  explicit Camera(const Options& options);

  Run run;
  Parties parties;
  NodeHost node;
  Conversation conversation;
  UsbHost host;
};

/// Sets the fault, or ends it.
void set_fault(Camera& camera, const Fault& fault, bool on);

}  // namespace sim
