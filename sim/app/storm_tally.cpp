#include "sim/app/storm_tally.h"

#include <sys/mman.h>

#include <cstdio>
#include <cstdlib>
#include <new>
#include <utility>

namespace sim {

namespace {

void print_count(const char* kind, const std::string& name, u32 count) {
  std::printf("%-8s %-30s %6u\n", kind, name.c_str(), count);
}

}  // namespace

StormTally& make_storm_tally() {
  void* memory = mmap(nullptr, sizeof(StormTally), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
  if (memory != MAP_FAILED) return *new (memory) StormTally{};
  std::perror("mmap");
  std::exit(2);
}

void print_storm_tally(const StormTally& tally) {
  print_count("lives", "", tally.lives);
  print_count("rounds", "", tally.rounds);
  for (std::size_t i = 0; i < host_formats().size(); ++i)
    print_count("streams", host_formats()[i].name, tally.streams[i]);
  for (std::size_t i = 0; i < storm_faults().size(); ++i)
    print_count("faults", storm_faults()[i].name(), tally.faults[i]);
  for (u32 i = 0; i < static_cast<u32>(StormState::kCount); ++i)
    print_count("ends", name_of(static_cast<StormState>(i)), tally.ends[i]);
  print_count("requests", "", tally.requests);
  print_count("settings", "", tally.settings);
  print_count("slowest", "answer, ms", tally.answer.ms());
  print_count("slowest", "picture back, ms", tally.picture.ms());
  print_count("slowest", "controls back, ms", tally.controls.ms());
  print_count("slowest", "end, ms", tally.end.ms());
  print_count("machine", "late in a life, ms", tally.machine.ms());
  print_count("failures", "", tally.failures);
}

StormLog::StormLog(StormTally& tally, std::string name, bool quiet)
    : tally_(tally), name_(std::move(name)), quiet_(quiet) {}

void StormLog::say(const std::string& text) {
  char time[16];
  const std::chrono::duration<double> since = std::chrono::steady_clock::now() - begin_;
  std::snprintf(time, sizeof(time), " %7.3f  ", since.count());
  const std::string line = name_ + time + text + '\n';
  if (quiet_) {
    held_back_ += line;
    return;
  }
  std::fputs(line.c_str(), stdout);
  std::fflush(stdout);
}

void StormLog::step(const std::string& text) {
  const std::lock_guard guard(lock_);
  say(text);
}

void StormLog::fail(const std::string& text) {
  const std::lock_guard guard(lock_);
  quiet_ = false;
  std::fputs(std::exchange(held_back_, {}).c_str(), stdout);
  say("FAILED: " + text);
  ++failures_;
  ++tally_.failures;
}

}  // namespace sim
