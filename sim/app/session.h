// A session of camera_sim: the camera, the service as a child process, which may be started again, and what
// was found wrong in that time.
#pragma once

#include <signal.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "sim/app/camera.h"
#include "sim/app/results.h"
#include "sim/app/service_process.h"
#include "sim/app/timeline.h"

namespace sim {

struct Fault;
struct Options;

/// Ctrl-C, SIGTERM and SIGHUP only put their number here from now on; whoever waits looks at it.
extern volatile sig_atomic_t interrupted;
/// Returns how many times as long as on an idle PC something may take: 1 or more.
int patience();
void catch_signals();

class Session {
 public:
  using Clock = std::chrono::steady_clock;

  /// Starts the service in `camera`; its output goes to `service_log`. All three must outlive the session.
  Session(const Options& options, Camera& camera, std::FILE* service_log);

  const Options& options() const { return options_; }
  Camera& camera() { return camera_; }
  ServiceProcess& service() { return *service_; }
  Timeline& timeline() { return timeline_; }

  /// Waits until the service has connected the device, and puts the cable in. Complains if that fails.
  bool wait_for_device();
  /// Returns false if the limit passed, the service ended or Ctrl-C came before the condition held.
  template <class Condition>
  bool wait(Clock::duration limit, Condition condition);
  bool going_on() { return !interrupted && service_->running(); }

  /// End the service that runs, by SIGTERM or by SIGKILL, and start it again after it has ended. It dies with
  /// the thread that has started it. The start returns like wait_for_device().
  void stop_service(int signal = SIGTERM);
  bool start_service();
  /// Puts the cable in. Our host then enumerates the device, unless it is another's or a recorded one speaks.
  /// Returns false if it does not find what it expects.
  bool plug_in();

  /// Returns the path of a PNG in the options' folder: "replug MJPEG
  /// 1280x720" becomes replug-mjpeg-1280x720.png.
  std::string picture_path(std::string name) const;

  /// Keeps what was found; the session has failed if one of them is not good.
  void keep(Finding finding) { findings_.push_back(std::move(finding)); }
  /// Prints what went wrong, and keeps it.
  void complain(const std::string& what);
  const std::vector<Finding>& findings() const { return findings_; }
  bool good() const { return std::ranges::all_of(findings_, &Finding::good); }

  /// Sets the fault when its time from now has passed, or never if that time is 0, and ends it
  /// after its duration.
  void schedule(const Fault& fault);

  /// Ends the service by SIGTERM and judges how it ended, unless stop_service() has ended it.
  void end_service();
  /// Prints the counts and writes the logs of server and node.
  void print_counts();

 private:
  const Options& options_;
  Camera& camera_;
  std::FILE* const service_log_;
  std::optional<ServiceProcess> service_;
  bool stopped_ = false;  ///< the service was told to end
  Timeline timeline_;
  std::vector<Finding> findings_;
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
