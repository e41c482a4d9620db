// The USB host's controls in a storm: class requests without a break from a thread of its own. Every image
// control takes values that no other one takes, so an answer or a setting that goes astray shows.
#pragma once

#include <atomic>
#include <mutex>
#include <optional>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include "sim/app/camera.h"
#include "sim/app/metronome.h"
#include "sim/app/storm_tally.h"

namespace sim {

/// What holds for the requests of a round.
struct StormRules {
  double longest_ms;  ///< from a SETUP to its answer
  bool in_range;      ///< a reading is a value that the control can have
  bool exact;         ///< a reading is what was set last
};

class StormControls {
 public:
  /// Begins paused.
  StormControls(Camera& camera, const Metronome& metronome, StormTally& tally, StormLog& log, u32 seed);
  ~StormControls();

  void set_rules(const StormRules& rules) { rules_ = rules; }  ///< while paused
  /// Returns once no request is under way.
  void pause();
  void go_on();

  // While paused:

  /// Sets and reads all image controls until each reads what was set. Seconds that it took; nothing when the
  /// limit has passed.
  std::optional<double> come_back(double limit);
  /// Compares the settings that the server has received since the last time with those that were sent: each
  /// once and in order, and nothing that it refused. Some may be missing, or were given up in the middle,
  /// when messages could get lost.
  void judge_settings(bool may_lose);

 private:
  struct Image;
  void run();
  void any_request();
  u16 next_value(const Image& image, u32 step) const;
  bool set(const Image& image, u16 value);
  std::optional<u16> get(const Image& image);
  void judge_reading(const Image& image, u16 value);
  void send_other();
  ControlAnswer request(u8 request, u8 entity, u8 selector, std::span<const u8> data, std::size_t length);
  std::vector<std::string> received_settings();

  static const Image kImages[];
  Camera& camera_;
  const Metronome& metronome_;
  StormTally& tally_;
  StormLog& log_;
  std::mt19937 random_;
  StormRules rules_{};
  std::vector<std::string> sent_;  ///< settings, as the server names them
  std::size_t heard_ = 0;          ///< lines of the server
  unsigned long refused_;          ///< requests that it has refused
  u16 last_[4];                    ///< values of the image controls
  std::mutex turn_;                ///< held for a request, and while paused
  std::unique_lock<std::mutex> paused_{turn_};
  std::atomic<bool> ending_ = false;
  std::thread thread_;
};

}  // namespace sim
