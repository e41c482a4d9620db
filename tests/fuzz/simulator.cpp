// What the simulator reads: f a fault as a person writes it, n one of the gadget node, v VISCA frames.
#include <cmath>

#include "sim/app/fault_script.h"
#include "sim/parties/camera_head.h"
#include "sim/parties/visca_device.h"
#include "sim/seam/node.h"
#include "sim/seam/run.h"
#include "tests/fuzz/fuzz.h"

namespace {

using fuzz::check;
using fuzz::Input;

void fault(Input input) {
  const auto rest = input.rest();
  const std::string text(rest.begin(), rest.end());
  std::string error;
  const auto parsed = sim::parse_fault(text, error);
  check(parsed.has_value() == error.empty(), "a fault that is not understood is explained");
  if (!parsed) return;
  check(parsed->at >= 0 && parsed->at <= 1e6, "a fault has a time");
  check(!parsed->duration || (*parsed->duration >= 0 && *parsed->duration <= 1e6), "it lasts a time");
  check(!parsed->by || (*parsed->by >= 0 && *parsed->by <= 1e6), "it slows down by a time");
  const auto* node = std::get_if<sim::NodeFault>(&parsed->kind);
  check(!node || !node->text.empty(), "the node gets its own faults");
  const auto* host = std::get_if<sim::HostFault>(&parsed->kind);
  if (host && *host == sim::HostFault::kNoCable)
    check(parsed->duration.has_value(), "a cable is put in again");
}

void node_script(Input input) {
  sim::NodeHost host;
  while (!input.empty()) host.script(input.line());
  host.script("clear");
  for (int i = 0; i < 16; ++i) check(host.script("fail QBUF 1"), "a script that is cleared takes faults");
  check(!host.script("fail QBUF 1"), "and 16 at most");
  host.script("clear");
}

void visca(Input input) {
  sim::CameraHead head;
  while (!input.empty()) {
    const auto answer = obey_visca(head, input.bytes(input.take<u8>() % 20));
    check(answer.bytes.size() == (answer.refused || answer.bytes.size() == 3 ? answer.refused + 3u : 4u),
          "an answer is a value or the protocol's");
    const sim::PictureSettings s = head.settings();
    check(s.brightness <= 15 && s.contrast <= 15 && s.saturation <= 15 && s.sharpness <= 15 && s.gamma <= 6 &&
              s.gain >= 4 && s.gain <= 15 && s.power_line <= 2 && s.white_balance >= 1800 &&
              s.white_balance <= 10000 && s.picture_mode >= sim::kPlain && s.picture_mode <= sim::kMirrored,
          "settings stay in their ranges");
    const sim::CameraView view = head.view();
    check(std::abs(view.pan) <= 170 && std::abs(view.tilt) <= 90, "the head stays within its reach");
    check(view.zoom >= 1 && view.zoom <= sim::kMostZoom + 1e-9, "and so does the lens");
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const u8* bytes, std::size_t size) {
  static const sim::Run run;
  Input input(bytes, size);
  switch (input.take<u8>()) {
    case 'f':
      fault(input);
      break;
    case 'n':
      node_script(input);
      break;
    case 'v':
      visca(input);
      break;
  }
  return 0;
}
