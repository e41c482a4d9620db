#include "sim/camera.h"

#include <cstdio>

namespace sim {

static MediaOptions with_view(MediaOptions options, const CameraHead& head) {
  options.view = [&head] { return head.view(); };
  return options;
}

Camera::Camera(const Options& options)
    : media(with_view(options.media, head)),
      server({.pool_address = Media::pool_address(), .pool_size = Media::pool_size(), .head = &head}),
      collector({.output = options.log_level ? stdout : nullptr,
                 .level = options.log_level.value_or(0),
                 .contains = {}}),
      conversation(node, [this](std::size_t from) { return server.received(from); }),
      host(node, conversation, options.paced) {
  server.on_encoder_settings([this](const EncoderSettingsMessage& message) { media.apply(message); });
  if (!options.print_level.empty()) {
    run.write_file("/opt/params/print.conf", "uvc_gadget=" + options.print_level + '\n');
  }
  for (const Fault& fault : options.faults) {
    if (fault.at == 0) set_fault(*this, fault, true);
  }
}

void set_fault(Camera& camera, const Fault& fault, bool on) {
  const auto server = [&](ServerFault kind) { camera.server.set_fault(on ? kind : ServerFault::kNone); };
  const auto encoder = [&](EncoderFault kind) { camera.media.set_fault(on ? kind : EncoderFault::kNone); };
  switch (fault.kind) {
    case FaultKind::kNode:
      if (camera.node.script(on ? fault.node_text : "clear")) return;
      std::fprintf(stderr, "camera_sim: the node does not know the fault \"%s\"\n", fault.node_text.c_str());
      return;
    case FaultKind::kUnplug:
      return on ? camera.host.unplug() : camera.host.replug();
    case FaultKind::kServerDead:
      return server(ServerFault::kDead);
    case FaultKind::kServerSlow:
      return server(ServerFault::kSlow);
    case FaultKind::kServerGarbled:
      return server(ServerFault::kGarbled);
    case FaultKind::kServerMute:
      return server(ServerFault::kMute);
    case FaultKind::kServerMisdirects:
      return server(ServerFault::kMisdirected);
    case FaultKind::kServerAnswersTwice:
      return server(ServerFault::kAnswersTwice);
    case FaultKind::kEncoderSilent:
      return encoder(EncoderFault::kSilent);
    case FaultKind::kEncoderDead:
      return encoder(EncoderFault::kDead);
    case FaultKind::kEncoderWrongSize:
      return encoder(EncoderFault::kWrongSize);
    case FaultKind::kLogQueueFull:
      camera.collector.pause(on);
      if (on) camera.collector.fill_queue();
  }
}

}  // namespace sim
