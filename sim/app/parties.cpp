#include "sim/app/parties.h"

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

static constexpr std::pair<FaultKind, ServerFault> kServerFaults[] = {
    {FaultKind::kServerDead, ServerFault::kDead},
    {FaultKind::kServerFull, ServerFault::kFull},
    {FaultKind::kServerSlow, ServerFault::kSlow},
    {FaultKind::kServerGarbled, ServerFault::kGarbled},
    {FaultKind::kServerMute, ServerFault::kMute},
    {FaultKind::kServerMisdirects, ServerFault::kMisdirected},
    {FaultKind::kServerAnswersTwice, ServerFault::kAnswersTwice},
    {FaultKind::kServerGone, ServerFault::kGone},
    {FaultKind::kServerLate, ServerFault::kLate},
};
static constexpr std::pair<FaultKind, EncoderFault> kEncoderFaults[] = {
    {FaultKind::kEncoderSilent, EncoderFault::kSilent},
    {FaultKind::kEncoderDead, EncoderFault::kDead},
    {FaultKind::kEncoderWrongSize, EncoderFault::kWrongSize},
    {FaultKind::kEncoderPosts, EncoderFault::kPosts},
    {FaultKind::kEncoderGone, EncoderFault::kGone},
};

bool set_fault(Parties& parties, FaultKind kind, bool on) {
  for (const auto& [row, fault] : kServerFaults)
    if (row == kind) return parties.server.set_fault(on ? fault : ServerFault::kNone), true;
  for (const auto& [row, fault] : kEncoderFaults)
    if (row == kind) return parties.media.set_fault(on ? fault : EncoderFault::kNone), true;
  if (kind == FaultKind::kCollectorGone) return parties.collector.set_gone(on), true;
  if (kind != FaultKind::kLogQueueFull) return false;
  parties.collector.pause(on);
  if (on) parties.collector.fill_queue();
  return true;
}

}  // namespace sim
