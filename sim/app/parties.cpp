#include "sim/app/parties.h"

#include <utility>

#include "sim/app/fault_script.h"
#include "sim/media/encoder_fault.h"
#include "sim/parties/server_fault.h"

namespace sim {

namespace {

MediaOptions with_view(MediaOptions options, const CameraHead& head) {
  options.view = [&head] { return head.view(); };
  return options;
}

std::chrono::milliseconds in_milliseconds(double seconds) {
  return std::chrono::duration_cast<std::chrono::milliseconds>(std::chrono::duration<double>(seconds));
}

void set_fault(Collector& collector, CollectorFault fault, bool on) {
  if (fault == CollectorFault::kGone) return collector.set_gone(on);
  collector.pause(on);
  if (on) collector.fill_queue();
}

}  // namespace

const char* missing_party(const Cast& cast, const Fault& fault) {
  if (!cast.server && std::holds_alternative<ServerFault>(fault.kind)) return "server";
  if (!cast.encoder && std::holds_alternative<EncoderFault>(fault.kind)) return "encoder";
  if (!cast.collector && std::holds_alternative<CollectorFault>(fault.kind)) return "collector";
  return nullptr;
}

Parties::Parties(MediaOptions media_options, const CollectorOptions& collector_options, const Cast& cast)
    : media(with_view(std::move(media_options), head)) {
  if (cast.server) {
    server.emplace(
        ServerOptions{.pool_address = Media::pool_address(), .pool_size = Media::pool_size(), .head = &head});
    server->on_encoder_settings([this](const EncoderSettingsMessage& message) { media.apply(message); });
  }
  if (cast.collector) collector.emplace(collector_options);
}

std::vector<std::string> received(const Parties& parties, std::size_t from) {
  return parties.server ? parties.server->received(from) : std::vector<std::string>();
}

bool set_fault(Parties& parties, const Fault& fault, bool on) {
  if (const auto* server = std::get_if<ServerFault>(&fault.kind)) {
    parties.server->set_fault(on ? *server : ServerFault::kNone,
                              fault.by ? std::optional(in_milliseconds(*fault.by)) : std::nullopt);
  } else if (const auto* encoder = std::get_if<EncoderFault>(&fault.kind)) {
    parties.media.set_fault(on ? *encoder : EncoderFault::kNone, in_milliseconds(fault.by.value_or(0)));
  } else if (const auto* collector = std::get_if<CollectorFault>(&fault.kind)) {
    set_fault(*parties.collector, *collector, on);
  } else {
    return false;
  }
  return true;
}

}  // namespace sim
