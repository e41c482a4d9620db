// camera_parties: system server, media process and log collector as a program of their own, with the camera's
// real keys and names, for a machine that is the camera's own. It reads faults as lines on standard input.
#include <poll.h>
#include <signal.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <iostream>
#include <memory>
#include <string>

#include "sim/app/fault_script.h"
#include "sim/app/parties.h"
#include "sim/app/timeline.h"
#include "sim/media/made_frames.h"
#include "sim/seam/run.h"

namespace sim {
namespace {

constexpr int kLogIntervalMs = 20;

volatile sig_atomic_t interrupted = 0;

using File = std::unique_ptr<std::FILE, int (*)(std::FILE*)>;

File create(const std::string& path) {
  File file(std::fopen(path.c_str(), "w"), std::fclose);
  if (file) return file;
  std::perror(path.c_str());
  std::exit(2);
}

class Program {
 public:
  Program(const std::string& folder, const std::string& lent_encoder);

  // Serves until a signal comes. A file named "ready" shows that it has begun.
  void run();

 private:
  void take_fault(const std::string& line);

  const std::string folder_;
  const File made_log_, server_log_, collector_log_;
  Parties parties_;
  Timeline timeline_;
};

Program::Program(const std::string& folder, const std::string& lent_encoder)
    : folder_(folder),
      made_log_(create(folder + "/made.log")),
      server_log_(create(folder + "/server.log")),
      collector_log_(create(folder + "/service-log.txt")),
      parties_({.lent_encoder = lent_encoder}, {.output = collector_log_.get(), .contains = {}}) {
  log_made_frames(made_log_.get());
  parties_.server->log_received(server_log_.get());
}

void Program::take_fault(const std::string& line) {
  std::string error;
  const auto fault = parse_fault(line, error);
  if (!fault) {
    std::fprintf(stderr, "camera_parties: %s\n", error.c_str());
    return;
  }
  const auto set = [this, fault](bool on) {
    if (set_fault(parties_, *fault, on)) return;
    std::fprintf(stderr, "camera_parties: node and cable are not played here: %s\n", fault->text.c_str());
  };
  timeline_.in(fault->at, [set] { set(true); });
  if (fault->duration) timeline_.in(fault->at + *fault->duration, [set] { set(false); });
}

void Program::run() {
  create(folder_ + "/ready");
  pollfd input = {STDIN_FILENO, POLLIN, 0};
  while (!interrupted) {
    if (poll(&input, 1, kLogIntervalMs) > 0) {
      std::string line;
      if (std::getline(std::cin, line)) {
        take_fault(line);
      } else {
        input.fd = -1;
      }
    }
    std::fflush(collector_log_.get());
  }
}

}  // namespace
}  // namespace sim

int main(int argc, char** argv) {
  if (argc < 2 || argc > 3) {
    std::fprintf(
        stderr,
        "Usage: camera_parties FOLDER [LENT_ENCODER]\n\nUses the camera's real keys: not for a PC. Logs go "
        "to FOLDER.\nReads faults from standard input, one per line:\n%s",
        sim::fault_forms("  ").c_str());
    return 2;
  }
  for (const int number : {SIGINT, SIGTERM}) signal(number, [](int) { sim::interrupted = 1; });
  sim::use_whole_machine();
  sim::Program(argv[1], argc > 2 ? argv[2] : "").run();
  return 0;
}
