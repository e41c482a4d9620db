#include "sim/parties.h"

#include <utility>

namespace sim {

static MediaOptions with_view(MediaOptions options, const CameraHead& head) {
  options.view = [&head] { return head.view(); };
  return options;
}

Parties::Parties(MediaOptions media_options, const CollectorOptions& collector_options)
    : media(with_view(std::move(media_options), head)),
      server({.pool_address = Media::pool_address(), .pool_size = Media::pool_size(), .head = &head}),
      collector(collector_options) {
  server.on_encoder_settings([this](const EncoderSettingsMessage& message) { media.apply(message); });
}

bool set_fault(Parties& parties, FaultKind kind, bool on) {
  const auto server = [&](ServerFault fault) {
    parties.server.set_fault(on ? fault : ServerFault::kNone);
    return true;
  };
  const auto encoder = [&](EncoderFault fault) {
    parties.media.set_fault(on ? fault : EncoderFault::kNone);
    return true;
  };
  switch (kind) {
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
      parties.collector.pause(on);
      if (on) parties.collector.fill_queue();
      return true;
    case FaultKind::kNode:
    case FaultKind::kUnplug:
      return false;
  }
  return false;
}

}  // namespace sim
