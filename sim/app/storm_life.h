// Carries a storm's plan out: one life of the service after the other in one simulated camera, and judges it.
#pragma once

#include <cstdio>
#include <memory>
#include <optional>
#include <string>

#include "sim/app/belongings.h"
#include "sim/app/camera.h"
#include "sim/app/options.h"
#include "sim/app/service_process.h"
#include "sim/app/storm_controls.h"
#include "sim/app/timeline.h"

namespace sim {

class StormLives {
 public:
  /// `program`: the service.
  StormLives(std::string program, StormTally& tally);

  /// From the service's start to its end, with everything in order again afterwards. False: something was
  /// wrong, and was told.
  bool live(const StormLife& life, u32 seed, const std::string& name, bool quiet);

 private:
  struct Weather;

  bool wait(std::chrono::milliseconds limit, const std::function<bool()>& condition);
  bool appear();
  void be_stormy(const StormLife& life, u32 seed);
  void round(const StormRound& round);
  void set_rules(const StormRound& round);
  void pass(const StormRound& round);
  void schedule(const StormStep& step, Weather& weather);
  void reload(double seconds);
  bool start(const StreamChoice& choice);
  void stop(const StormRound& round);
  void expect_picture(bool from_start);
  void expect_order(const StormRound& round);
  void expect_belongings();

  // storm_end.cpp:
  void enter(const StormEnd& end);
  void end(const StormEnd& end);
  void clear_up();

  const std::string program_;
  StormTally& tally_;
  const Options options_;
  Camera camera_{options_};
  Metronome metronome_;
  const std::unique_ptr<std::FILE, int (*)(std::FILE*)> output_{std::tmpfile(), std::fclose};

  // Of the life that is going on.
  StormLog* log_ = nullptr;
  std::optional<ServiceProcess> service_;
  std::unique_ptr<StormControls> controls_;
  std::optional<Belongings> belongings_;
  bool streams_ = false;
  std::size_t driver_errors_ = 0;
};

}  // namespace sim
