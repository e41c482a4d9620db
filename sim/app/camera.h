// The simulated camera around a service: everything but the service itself.
#pragma once

#include <fstream>

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
  /// its settings, the encoder follows what the host commits. An encoder of the user's own finds the words of
  /// each command 10 as a line in the file encoder.settings of the options' folder.
  explicit Camera(const Options& options);

  Run run;
  Parties parties;
  NodeHost node;
  Conversation conversation;
  UsbHost host;
  std::ofstream encoder_settings;

  /// What a host's stream, or its end (null), means for the encoder if no server brings it its settings.
  void follow_stream(const StreamChoice* choice);
};

/// Sets the fault, or ends it. Its party must be played here.
void set_fault(Camera& camera, const Fault& fault, bool on);

}  // namespace sim
