// camera_storm: the service under random faults from a seed that repeats the run. One process lives through
// storms, one through faults that last longer than the host waits, others make many short lives of which
// nothing but the end counts.
#include <getopt.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <filesystem>
#include <iterator>
#include <optional>
#include <random>
#include <vector>

#include "sim/app/storm_life.h"
#include "sim/app/text.h"

namespace sim {
namespace {

using Clock = std::chrono::steady_clock;

struct Kind {
  const char* name;  //< of the lives, and of the option for one alone
  StormLife (*plan)(u32 seed, u32 number);
  u32 processes;
};
constexpr Kind kKinds[] = {
    {"life", plan_storm_life, 1},
    {"long", plan_long_life, 1},
    {"end", plan_short_life, 4},  // they mostly wait
};

constexpr char kHelp[] =
    "Usage: camera_storm [MINUTES] [OPTION]...\n"
    "Runs the camera service (one minute) under random faults of all parties around it, and ends it in "
    "every\n"
    "state. Each step is told with its time.\n\n"
    "  --seed N   of the plan; the same number repeats the run (default: another one each time)\n"
    "  --life N   this life of the plan only\n"
    "  --long N   this life of long faults only\n"
    "  --end N    this short life only\n"
    "  --help     show this, and end\n\n"
    "Exit status: 0 when everything came back as it should, 1 when not, 2 for a wrong option.\n";

struct StormOptions {
  double minutes = 1;
  u32 seed = std::random_device()();
  std::optional<u32> only[std::size(kKinds)];  //< this life of the kind alone
};

// Reads the options. False, with the exit status, once help or an error has been printed.
bool parse(int argc, char** argv, StormOptions& options, int& exit_status) {
  constexpr int kKind = 256;
  std::vector<option> names = {{"seed", required_argument, nullptr, 's'},
                               {"help", no_argument, nullptr, 'h'}};
  for (int i = 0; const Kind& kind : kKinds)
    names.push_back({kind.name, required_argument, nullptr, kKind + i++});
  names.emplace_back();
  bool good = true;
  for (int name; good && (name = getopt_long(argc, argv, "", names.data(), nullptr)) != -1;) {
    const auto number = optarg ? parse_number<u32>(optarg, 0, ~0u) : std::nullopt;
    good = number || name == 'h';
    if (name == 's') options.seed = number.value_or(0);
    if (name >= kKind) options.only[name - kKind] = number;
    if (name == 'h') return std::fputs(kHelp, stdout), exit_status = 0, false;
  }
  if (good && optind < argc) {
    const auto minutes = parse_number<double>(argv[optind++], 0.01, 10'000);
    options.minutes = minutes.value_or(0);
    good = minutes && optind == argc;
  }
  if (!good) std::fputs(kHelp, stderr);
  exit_status = 2;
  return good;
}

std::string service_program() {
  return std::filesystem::read_symlink("/proc/self/exe").replace_filename("uvc_gadget_sim");
}

// What one of the storm's processes does: the lives `first`, `first` + `step` and so on, or one alone.
struct Share {
  const Kind& kind;
  u32 first, step;
  bool alone;
};

bool live(const StormOptions& options, StormTally& tally, const Share& share) {
  const auto end = Clock::now() + std::chrono::duration<double>(60 * options.minutes);
  StormLives lives(service_program(), tally);
  bool good = true;
  u32 number = share.first;
  do {
    const StormLife life = share.kind.plan(options.seed, number);
    const std::string who =
        "seed " + std::to_string(options.seed) + ' ' + share.kind.name + ' ' + std::to_string(number);
    good = lives.live(life, options.seed + number, who, life.rounds.empty() && !share.alone) && good;
    number += share.step;
  } while (!share.alone && Clock::now() < end);
  return good;
}

// A process that carries its share out until the time is over.
pid_t fork_lives(const StormOptions& options, StormTally& tally, const Share& share) {
  std::fflush(stdout);
  const pid_t parent = getpid(), child = fork();
  if (child != 0) return child;
  prctl(PR_SET_PDEATHSIG, SIGKILL);
  if (getppid() != parent) _exit(2);
  const bool good = live(options, tally, share);
  std::fflush(stdout);
  _exit(good ? 0 : 1);
}

// Whether the process ended well; one that hangs is killed.
bool wait_for(pid_t child, Clock::time_point limit) {
  int status;
  while (waitpid(child, &status, WNOHANG) == 0) {
    if (Clock::now() > limit) kill(child, SIGKILL);
    usleep(20'000);
  }
  if (WIFEXITED(status)) return WEXITSTATUS(status) == 0;
  std::printf("FAILED: a process of the storm itself was killed by signal %d\n", WTERMSIG(status));
  return false;
}

int storm(const StormOptions& options) {
  StormTally& tally = make_storm_tally();
  std::printf("seed %u, %g minutes\n", options.seed, options.minutes);
  const auto limit = Clock::now() + std::chrono::seconds(std::lround(60 * options.minutes) + 180);
  std::vector<pid_t> children;
  const auto begin = [&](const Share& share) { children.push_back(fork_lives(options, tally, share)); };
  const bool all = std::ranges::none_of(options.only, &std::optional<u32>::has_value);
  for (std::size_t i = 0; i < std::size(kKinds); ++i) {
    const Kind& kind = kKinds[i];
    if (const auto number = options.only[i]) begin({kind, *number, 1, true});
    for (u32 first = 0; all && first < kind.processes; ++first) begin({kind, first, kind.processes, false});
  }
  bool good = true;
  for (const pid_t child : children) good = wait_for(child, limit) && good;
  print_storm_tally(tally);
  std::printf("seed %u: %s\n", options.seed, good ? "all as it should be" : "FAILED, see above");
  return good ? 0 : 1;
}

}  // namespace
}  // namespace sim

int main(int argc, char** argv) {
  sim::StormOptions options;
  int exit_status;
  return sim::parse(argc, argv, options, exit_status) ? sim::storm(options) : exit_status;
}
