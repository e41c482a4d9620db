// What the pages are told again and again: the state of camera and service, and what has happened since.
#pragma once

#include <map>
#include <mutex>
#include <optional>
#include <string>

#include "sim/app/camera.h"
#include "sim/app/process_load.h"
#include "sim/app/recording.h"
#include "sim/web/json.h"

namespace sim {

/// What the thread that carries out commands has to say.
struct WebStatus {
  pid_t service = 0;
  std::string service_ended{};  ///< how; empty while it runs
  std::optional<StreamChoice> stream{}, wanted{};
  std::string trouble{};  ///< why a wanted stream does not run
  std::vector<std::string> faults{};
};

class WebState {
 public:
  WebState(Camera& camera, const Recording& recording) : camera_(camera), recording_(recording) {}

  // Any thread may call these.
  void set(WebStatus status);
  /// As it was at the last look.
  Json state() const;

  // A single thread calls these.
  /// Measures and counts anew.
  void look();

  /// How much of the three records a page has been sent.
  struct Seen {
    std::size_t exchanges = 0, server = 0;
    unsigned long log = 0;
  };
  /// Returns what came since, at most so many of each, and the state; what is skipped is counted.
  Json news(Seen& seen);

 private:
  Json stream_now(const WebStatus& status) const;

  Camera& camera_;
  const Recording& recording_;
  mutable std::mutex lock_;  ///< guards the next two members
  WebStatus status_;
  Json state_;
  ProcessLoad service_load_, own_load_;
  std::size_t settled_ = 0, exchanges_ = 0;
};

/// The same record for a command: what happened from a number on.
Json conversation_since(Camera& camera, std::size_t from, std::size_t to);
Json log_since(const Camera& camera, unsigned long from, char level);
Json server_since(const Camera& camera, std::size_t from);
/// Such as {"format": "MJPEG", "width": 1280, "height": 720, "rate": 30}.
Json json_of(const StreamChoice& choice);

}  // namespace sim
