// The camera at a host that is not ours, driven from the prompt until it ends.
#pragma once

#include <optional>

#include "sim/app/session.h"
#include "sim/usbip/attachment.h"
#include "sim/usbip/gadget.h"

namespace sim {

struct Options;

/// The host's side of the camera. To be there before the session starts the service.
class AttachedHost {
 public:
  AttachedHost(const Options& options, Camera& camera, VirtualController* controller);

  /// Says what to do with the camera once it is on the bus, then takes commands. On a terminal the prompt
  /// shows what the host does; without one, the end of the commands does not end the session. Ends with the
  /// device off the bus.
  void run(Session& session);

 private:
  void show_stream(const StreamChoice* choice);
  bool introduce(Session& session);
  std::string status();

  Camera& camera_;
  const bool listens_;
  Gadget gadget_;
  std::optional<Attachment> attachment_;
  StreamCounts counted_{};
  Session::Clock::time_point counted_at_{};
  std::string rate_, setting_;
  std::size_t seen_ = 0;  ///< exchanges
};

}  // namespace sim
