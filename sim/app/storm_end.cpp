// The ends of a storm's lives: the service is brought into a state and gets its signal there.
#include <linux/usb/video.h>

#include <cmath>
#include <cstring>

#include "sim/app/storm_life.h"
#include "sim/host/host_controls.h"
#include "sim/media/encoder_fault.h"
#include "sim/parties/server_fault.h"

namespace sim {

namespace {

using namespace std::chrono_literals;

constexpr double kServiceEnd = 1;  //< seconds from the signal to the service's end
constexpr double kServicePatience = 5;

v4l2_event event_of(u32 type) {
  v4l2_event event{};
  event.type = type;
  return event;
}

// A reading that needs the server.
v4l2_event reading() {
  const auto setup = class_request(UVC_GET_CUR, kVideoControlInterface, kProcessingUnit,
                                   UVC_PU_BRIGHTNESS_CONTROL, sizeof(u16));
  v4l2_event event = event_of(UVC_EVENT_SETUP);
  std::memcpy(event.u.data, &setup, sizeof(setup));
  return event;
}

}  // namespace

// Brings the service into the state and leaves it there for a while.
void StormLives::enter(const StormEnd& end) {
  const auto server = [this](ServerFault fault) { camera_.parties.server->set_fault(fault); };
  StreamChoice choice = end.choice;
  if (end.state == StormState::kWaitsForPicture)
    choice = {StreamFormat::kYuy2, host_format(StreamFormat::kYuy2).sizes[0], end.choice.rate};
  const bool begins = end.state == StormState::kStarting && !controls_ && !camera_.host.plugged();
  if (begins) {
    wait(20s, [this] { return !camera_.run.shell_log().empty(); });  // the signal handlers stand from here on
  } else if (camera_.host.plugged() || appear()) {
    const bool streams = end.state != StormState::kIdle && end.state != StormState::kWaitsForAnswer &&
                         end.state != StormState::kStarting;
    if (streams) start(choice);
  }
  switch (end.state) {
    case StormState::kStopping:
      camera_.node.raise(event_of(UVC_EVENT_STREAMOFF));
      break;
    case StormState::kUnplugged:
      camera_.host.unplug();
      break;
    case StormState::kWaitsForAnswer:
      server(ServerFault::kMute);
      camera_.node.raise(reading());
      break;
    case StormState::kQueueFull:
      server(ServerFault::kFull);
      camera_.node.raise(reading());
      camera_.node.raise(event_of(UVC_EVENT_STREAMOFF));
      break;
    case StormState::kWaitsForPicture:
      camera_.parties.media.set_fault(EncoderFault::kSilent);
      break;
    default:
      break;
  }
  std::this_thread::sleep_for(std::chrono::duration<double>(end.after));
}

void StormLives::end(const StormEnd& end) {
  ++tally_.ends[static_cast<u32>(end.state)];
  log_->step(std::string(end.signal == SIGINT ? "SIGINT" : "SIGTERM") + " while " + name_of(end.state));
  const double late_ms = metronome_.late_ms();
  const auto seconds = service_->stop(kServicePatience, end.signal);
  const double limit = kServiceEnd + (metronome_.late_ms() - late_ms) / 1000;
  tally_.end.note(1000 * seconds.value_or(kServicePatience));
  if (!seconds) {
    log_->fail("the service did not end within 5 s and was killed");
  } else if (*seconds > limit || !service_->ended_with_success()) {
    log_->fail("the service ended after " + std::to_string(*seconds) + " s: " + service_->how_it_ended());
  }
  const auto errors = camera_.node.protocol_errors();
  if (errors.size() > driver_errors_) log_->fail("gadget driver: " + errors.back());
  driver_errors_ = errors.size();
}

// No service, no host, all parties well.
void StormLives::clear_up() {
  camera_.node.script("clear");
  camera_.parties.server->set_fault(ServerFault::kNone);
  camera_.parties.media.set_fault(EncoderFault::kNone);
  camera_.host.unplug();
  camera_.host.stop("");
  streams_ = false;
}

}  // namespace sim
