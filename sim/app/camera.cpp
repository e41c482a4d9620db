#include "sim/app/camera.h"

#include <algorithm>
#include <array>
#include <bit>
#include <cstdio>

#include "sim/app/fault_script.h"
#include "sim/app/options.h"

namespace sim {

namespace {

// What the encoder gets if there is no server that brings it the service's own settings.
struct SettingsRow {
  StreamFormat format;
  EncoderCodec codec;
  i32 rc_mode;
  i32 rc_param[5];
};
constexpr SettingsRow kSettings[] = {
    {StreamFormat::kMjpeg, kCodecMjpeg, 1, {16384, 99, 60}},
    {StreamFormat::kH264, kCodecH264, 0, {1, 60, 8192}},
    {StreamFormat::kH265, kCodecH265, 0, {60, 8192}},
    {StreamFormat::kYuy2, kCodecYuy2, 0, {}},
};

EncoderSettingsMessage settings_for(const StreamChoice& choice) {
  const SettingsRow& row = *std::ranges::find(kSettings, choice.format, &SettingsRow::format);
  EncoderSettings settings{
      choice.size.width, choice.size.height, static_cast<i32>(choice.rate), 0, row.codec, row.rc_mode, {}};
  std::ranges::copy(row.rc_param, settings.rc_param);
  return {2, 1, settings};
}

// Such as "10 2 1 1280 720 30 ...".
void write_line(std::ostream& file, const EncoderSettingsMessage& message) {
  file << i32{kVeltoEncoderSettings};
  for (const i32 word : std::bit_cast<std::array<i32, 13>>(message)) file << ' ' << word;
  file << std::endl;
}

}  // namespace

Camera::Camera(const Options& options)
    : parties({.source = options.source,
               .yuv422 = options.yuv422,
               .extra_stride = options.extra_stride,
               .encodes = options.cast.encoder,
               .lent_encoder = options.lent_encoder},
              {.output = options.log_level ? stdout : nullptr,
               .level = options.log_level.value_or(0),
               .contains = {}},
              options.cast),
      conversation(node, [this](std::size_t from) { return received(parties, from); }),
      host(node, conversation, options.paced) {
  if (!options.cast.encoder && parties.server) {
    encoder_settings.open(options.out + "/encoder.settings");
    parties.server->on_encoder_settings([this](const EncoderSettingsMessage& message) {
      write_line(encoder_settings, message);
      parties.media.apply(message);
    });
  }
  host.on_stream([this](const StreamChoice* choice) { follow_stream(choice); });
  if (!options.print_level.empty()) {
    run.write_file("/opt/params/print.conf", "uvc_gadget=" + options.print_level + '\n');
  }
  for (const Fault& fault : options.faults) {
    if (fault.at == 0) set_fault(*this, fault, true);
  }
}

void Camera::follow_stream(const StreamChoice* choice) {
  if (!parties.server) parties.media.apply(choice ? settings_for(*choice) : EncoderSettingsMessage{});
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
