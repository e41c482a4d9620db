// A session of camera_sim: the camera, the service as a child process from its start to its end, and what was
// found wrong in that time.
#pragma once

#include <signal.h>

#include <chrono>
#include <cstdio>
#include <string>
#include <thread>

#include "sim/app/camera.h"
#include "sim/app/service_process.h"
#include "sim/app/timeline.h"

namespace sim {

struct Fault;
struct Options;

/// Ctrl-C, SIGTERM and SIGHUP only put their number here from now on; whoever waits looks at it.
extern volatile sig_atomic_t interrupted;
void catch_signals();

class Session {
 public:
  using Clock = std::chrono::steady_clock;

  /// Starts the service, whose output goes to `service_log`. The options must outlive the session.
  Session(const Options& options, std::FILE* service_log);

  const Options& options() const { return options_; }
  Camera& camera() { return camera_; }
  ServiceProcess& service() { return service_; }
  Timeline& timeline() { return timeline_; }

  /// Waits until the device is on the bus and enumerated. Complains and returns false if that fails.
  bool wait_for_device();
  /// Returns false if the limit passed, the service ended or Ctrl-C came before the condition held.
  template <class Condition>
  bool wait(Clock::duration limit, Condition condition);
  bool going_on() { return !interrupted && service_.running(); }

  /// Returns the path of a PNG in the options' folder: "replug MJPEG
  /// 1280x720" becomes replug-mjpeg-1280x720.png.
  std::string picture_path(std::string name) const;

  /// Prints what went wrong; the session then counts as failed.
  void complain(const std::string& what);
  void judge(bool good) { good_ = good_ && good; }
  bool good() const { return good_; }

  /// Sets the fault when its time from now has passed, or never if that time is 0, and ends it
  /// after its duration.
  void schedule(const Fault& fault);

  /// Ends the service by SIGTERM and judges how it ended.
  void end_service();
  /// Prints the counts and writes the logs of server and node.
  void print_counts();

 private:
  const Options& options_;
  Camera camera_;
  ServiceProcess service_;
  Timeline timeline_;
  bool good_ = true;
};

template <class Condition>
bool Session::wait(Clock::duration limit, Condition condition) {
  const auto end = Clock::now() + limit;
  while (!condition()) {
    if (!going_on() || Clock::now() > end) return false;
    std::this_thread::sleep_for(std::chrono::milliseconds(10));
  }
  return true;
}

}  // namespace sim
