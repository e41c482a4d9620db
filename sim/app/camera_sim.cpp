// camera_sim: runs the camera service as a child process among a simulated camera and a USB host,
// streams from it and drives it, and judges whether the pictures arrive whole and in time and whether
// the camera obeys.
#include <fcntl.h>
#include <sys/file.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <memory>
#include <optional>
#include <thread>

#include "sim/app/attach_plan.h"
#include "sim/app/control_plan.h"
#include "sim/app/leftovers.h"
#include "sim/app/options.h"
#include "sim/app/prompt.h"
#include "sim/app/replay_plan.h"
#include "sim/app/run_names.h"
#include "sim/app/session.h"
#include "sim/app/stream_copy.h"
#include "sim/app/stream_plan.h"
#include "sim/app/sudo_user.h"
#include "sim/app/web_front.h"
#include "sim/media/made_frames.h"
#include "sim/media/ring_watcher.h"

namespace sim {
namespace {

// Waits for the first thing that a party of the user's own creates. Returns false if Ctrl-C comes first.
bool wait_for(const char* party, bool (*exists)()) {
  if (exists()) return true;
  std::printf("waiting for your own %s\n", party);
  std::fflush(stdout);
  while (!interrupted && !exists()) std::this_thread::sleep_for(std::chrono::milliseconds(20));
  return !interrupted;
}

bool wait_for_own_parties(const Options& options) {
  return (options.cast.server || wait_for("server", server_exists)) &&
         (options.cast.encoder || wait_for("encoder", ring_exists));
}

// Makes the folder and keeps other runs out of it until this process ends. False after an error.
bool take_folder(const std::string& path) {
  std::error_code failure;
  std::filesystem::create_directories(path, failure);
  const int folder = failure ? -1 : open(path.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
  if (folder < 0) {
    const std::string reason = failure ? failure.message() : std::strerror(errno);
    std::fprintf(stderr, "camera_sim: folder \"%s\" cannot be made: %s\n", path.c_str(), reason.c_str());
    return false;
  }
  if (flock(folder, LOCK_EX | LOCK_NB) == 0 || errno != EWOULDBLOCK) return true;
  std::fprintf(stderr, "camera_sim: another run is writing to \"%s\"; choose a folder with --out\n",
               path.c_str());
  return false;
}

using File = std::unique_ptr<std::FILE, int (*)(std::FILE*)>;

// Null after an error.
File create(const std::string& path) {
  File file(std::fopen(path.c_str(), "w"), std::fclose);
  if (!file) std::perror(path.c_str());
  return file;
}

int run(const Options& options) {
  std::optional<VirtualController> controller;
  if (options.attach && !options.listen && !controller.emplace().obstacle().empty()) {
    std::fprintf(stderr, "camera_sim: %s\n", controller->obstacle().c_str());
    return 2;
  }
  become_sudo_user();
  if (!take_folder(options.out)) return 2;
  const File log = create(options.out + "/service.log");
  const File made_log = options.attach ? create(options.out + "/made.log") : File(nullptr, std::fclose);
  const File server_log = create(options.out + "/server.log");
  if (!log || !server_log || (options.attach && !made_log)) return 2;
  std::optional<StreamCopy> copy;
  if (!options.to.empty() && !copy.emplace(options.to).stream()) {
    std::perror(options.to.c_str());
    return 2;
  }
  catch_signals();
  const Leftovers leftovers;
  Camera camera(options);
  log_made_frames(made_log.get());
  if (camera.parties.server) camera.parties.server->log_received(server_log.get());
  std::optional<AttachedHost> attached;
  if (options.attach) attached.emplace(options, camera, controller ? &*controller : nullptr);
  if (!tell_run_names(options.out + "/run.env") || !wait_for_own_parties(options)) return 2;
  Session session(options, camera, log.get());
  if (session.wait_for_device()) {
    if (attached) attached->run(session);
    if (options.web) web(session);
    if (options.prompt) prompt(session, copy ? &copy->stream() : nullptr);
    if (!options.replay.empty()) replay_plan(session);
    if (options.streams()) stream_plan(session, copy ? &copy->stream() : nullptr);
    if (options.controls()) control_plan(session);
  }
  session.end_service();
  session.print_counts();
  bool written = true;
  for (const std::string& path : options.results)
    written = write_results(path, "camera_sim", session.findings()) && written;
  if (interrupted && !options.stay && !options.attach && !options.web) return 130;
  return session.good() && written ? 0 : 1;
}

}  // namespace
}  // namespace sim

int main(int argc, char** argv) {
  int exit_status;
  const auto options = sim::parse_options(argc, argv, exit_status);
  return options ? sim::run(*options) : exit_status;
}
