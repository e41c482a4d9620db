#include "sim/app/camera.h"

#include <cstdio>

namespace sim {

Camera::Camera(const Options& options)
    : parties(options.media, {.output = options.log_level ? stdout : nullptr,
                              .level = options.log_level.value_or(0),
                              .contains = {}}),
      conversation(node, [this](std::size_t from) { return parties.server.received(from); }),
      host(node, conversation, options.paced) {
  if (!options.print_level.empty()) {
    run.write_file("/opt/params/print.conf", "uvc_gadget=" + options.print_level + '\n');
  }
  for (const Fault& fault : options.faults) {
    if (fault.at == 0) set_fault(*this, fault, true);
  }
}

void set_fault(Camera& camera, const Fault& fault, bool on) {
  if (set_fault(camera.parties, fault.kind, on)) return;
  if (fault.kind == FaultKind::kUnplug) return on ? camera.host.unplug() : camera.host.replug();
  if (fault.kind == FaultKind::kHostRests) return camera.host.rest(on);
  if (camera.node.script(on ? fault.node_text : "clear")) return;
  std::fprintf(stderr, "camera_sim: the node does not know the fault \"%s\"\n", fault.node_text.c_str());
}

}  // namespace sim
