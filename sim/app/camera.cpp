#include "sim/app/camera.h"

#include <cstdio>

#include "sim/app/fault_script.h"
#include "sim/app/options.h"

namespace sim {

Camera::Camera(const Options& options)
    : parties({.source = options.source, .yuv422 = options.yuv422, .extra_stride = options.extra_stride},
              {.output = options.log_level ? stdout : nullptr,
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
  if (set_fault(camera.parties, fault, on)) return;
  if (const auto* host = std::get_if<HostFault>(&fault.kind)) {
    if (*host == HostFault::kRests) return camera.host.rest(on);
    return on ? camera.host.unplug() : camera.host.replug();
  }
  const std::string& text = std::get<NodeFault>(fault.kind).text;
  if (camera.node.script(on ? text : "clear")) return;
  std::fprintf(stderr, "camera_sim: the node does not know the fault \"%s\"\n", text.c_str());
}

}  // namespace sim
