#include "sim/app/attach_plan.h"

#include <linux/usb/video.h>
#include <unistd.h>

#include <cstdio>

#include "sim/app/options.h"
#include "sim/app/prompt.h"
#include "sim/host/host_controls.h"

namespace sim {

namespace {

using namespace std::chrono_literals;

constexpr auto kNodeLimit = 10s;  // from the plug to the driver's node, on an idle PC
constexpr auto kRateTime = 1s;    // over which a rate is counted

std::string number(double value) {
  char text[24];
  std::snprintf(text, sizeof(text), "%.1f", value);
  return text;
}

}  // namespace

AttachedHost::AttachedHost(const Options& options, Camera& camera, VirtualController* controller)
    : camera_(camera), listens_(!controller), gadget_(camera.node, camera.conversation) {
  gadget_.on_stream([this](const StreamChoice* choice) { show_stream(choice); });
  camera.host.on_cable([](bool) {});  // the attachment looks at it
  attachment_.emplace(gadget_, HostPlace{controller, options.listen.value_or("")},
                      [&camera] { return camera.host.plugged() && camera.node.wait_for_device(0ms); });
}

// A line for each stream, unless the prompt's status shows it.
void AttachedHost::show_stream(const StreamChoice* choice) {
  camera_.follow_stream(choice);
  if (isatty(STDIN_FILENO) && isatty(STDOUT_FILENO)) return;
  const auto [frames, bytes] = gadget_.counts();
  if (choice) {
    std::printf("stream: %s, %u frames/s\n", name_of(*choice).c_str(), choice->rate);
  } else {
    std::printf("stream ends: %lu frames, %.1f MB so far\n", frames, static_cast<double>(bytes) / 1e6);
  }
  std::fflush(stdout);
}

// Returns false if the camera did not get to where it belongs.
bool AttachedHost::introduce(Session& session) {
  const auto there = [&] {
    return !attachment_->error().empty() || listens_ || !attachment_->video_node().empty();
  };
  const bool came = session.wait(kNodeLimit * patience(), there);
  if (const std::string error = attachment_->error(); !error.empty()) {
    session.complain(error);
    return false;
  }
  if (!came && session.going_on())
    session.complain(
        "the camera is plugged in, but no driver made a node for it: does this kernel have uvcvideo?");
  const std::string node = attachment_->video_node();
  if (listens_) {
    std::printf(
        "the camera waits at port %u; on the other PC, as root:\n"
        "  modprobe vhci-hcd && usbip attach -r ADDRESS -b 1-1\n",
        attachment_->port());
  } else if (came) {
    std::printf(
        "the camera is %s of this PC; try\n"
        "  ffplay -f v4l2 -input_format mjpeg -video_size 1280x720 %s\n"
        "  v4l2-ctl -d %s --list-ctrls\n"
        "  in a browser's video call: camera \"UVC Camera (1d6b:0102)\"\n",
        node.c_str(), node.c_str(), node.c_str());
  }
  std::fflush(stdout);
  return came;
}

std::string AttachedHost::status() {
  for (const Exchange& exchange : camera_.conversation.exchanges(seen_)) {
    ++seen_;
    const bool setting =
        exchange.setup.bRequest == UVC_SET_CUR && (exchange.setup.wIndex & 0xFF) == kVideoControlInterface;
    if (setting) setting_ = ", " + control_text(exchange) + (exchange.stalled ? " refused" : "");
  }
  const auto now = Session::Clock::now();
  if (now - counted_at_ >= kRateTime) {
    const StreamCounts counts = gadget_.counts();
    const double seconds = std::chrono::duration<double>(now - counted_at_).count();
    rate_ = number(static_cast<double>(counts.frames - counted_.frames) / seconds) + " frames/s " +
            number(static_cast<double>(counts.bytes - counted_.bytes) / seconds / 1e6) + " MB/s";
    counted_ = counts;
    counted_at_ = now;
  }
  if (!attachment_->connected()) return camera_.host.plugged() ? "no host" : "unplugged";
  const auto stream = gadget_.stream();
  const std::string node = attachment_->video_node();
  return (node.empty() ? "" : node + ' ') + (stream ? name_of(*stream) + ' ' + rate_ : "no stream") +
         setting_;
}

void AttachedHost::run(Session& session) {
  if (introduce(session)) prompt(session, nullptr, [this] { return status(); });
  attachment_.reset();
}

}  // namespace sim
