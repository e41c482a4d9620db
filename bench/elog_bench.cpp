// What one log line costs, beside the two system calls that it cannot do without. Every timed loop takes its
// record off the queue again, so that the compared loops differ by the logger alone.
#include <benchmark/benchmark.h>
#include <sys/msg.h>

#include <cstdio>
#include <map>
#include <string>
#include <vector>

#include "elog/elog.h"
#include "elog/elog_record.h"
#include "sim/run.h"

namespace {

int queue;

void take_record() {
  ElogRecord record;
  if (msgrcv(queue, &record, sizeof(record.payload), 0, IPC_NOWAIT) < 0) std::perror("elog_bench: no record");
}

void log_line(u8 level) {
  elog_output(level, "NO_TAG", "uvc_gadget.c", "uvc_video_fill_buffer", 1234, "frame %d: %s has %u bytes\n",
              17, "slot", 123456u);
}

void line_to_queue(benchmark::State& state, u8 level) {
  for (auto _ : state) {
    log_line(level);
    take_record();
  }
}

/// The same records as line_to_queue's, sent as they are.
void system_calls(benchmark::State& state, u8 level) {
  ElogRecord record;
  log_line(level);
  const auto size = msgrcv(queue, &record, sizeof(record.payload), 0, IPC_NOWAIT);
  for (auto _ : state) {
    msqid_ds info;
    msgctl(queue, IPC_STAT, &info);
    if (msgsnd(queue, &record, static_cast<std::size_t>(size), IPC_NOWAIT) < 0) state.SkipWithError("msgsnd");
    take_record();
  }
}

void line_below_level(benchmark::State& state) {
  for (auto _ : state) log_line(ELOG_LVL_DEBUG);
}

BENCHMARK_CAPTURE(system_calls, info, ELOG_LVL_INFO);
BENCHMARK_CAPTURE(line_to_queue, info, ELOG_LVL_INFO);
BENCHMARK_CAPTURE(system_calls, warn, ELOG_LVL_WARN);
BENCHMARK_CAPTURE(line_to_queue, warn, ELOG_LVL_WARN);
BENCHMARK(line_below_level);

/// Prints as usual and keeps the medians, in nanoseconds.
class Medians : public benchmark::ConsoleReporter {
 public:
  void ReportRuns(const std::vector<Run>& runs) override {
    ConsoleReporter::ReportRuns(runs);
    for (const Run& run : runs)
      if (run.aggregate_name == "median") medians[run.run_name.function_name] = run.GetAdjustedCPUTime();
  }
  std::map<std::string, double> medians;
};

}  // namespace

int main(int argc, char** argv) {
  std::vector<char*> arguments(argv, argv + argc);
  char repetitions[] = "--benchmark_repetitions=15",
       interleaved[] = "--benchmark_enable_random_interleaving=true",
       medians_only[] = "--benchmark_report_aggregates_only=true", time[] = "--benchmark_min_time=0.05";
  arguments.insert(arguments.begin() + 1, {repetitions, interleaved, medians_only, time});
  int count = static_cast<int>(arguments.size());
  benchmark::Initialize(&count, arguments.data());

  const sim::Run run;
  queue = msgget(sim::run_key(kElogQueueKey), IPC_CREAT | 0600);
  log_module_init(ELOG_LVL_INFO);
  Medians reporter;
  benchmark::RunSpecifiedBenchmarks(&reporter);
  auto& ns = reporter.medians;
  for (const char* level : {"info", "warn"}) {
    const double more = ns[std::string("line_to_queue/") + level] - ns[std::string("system_calls/") + level];
    std::printf("%s line to the queue: %+.3f us above its two system calls (aim: at most +0.25 us)\n", level,
                more / 1000);
  }
  std::printf("line below the level: %.1f ns (aim: at most 10 ns)\n", ns["line_below_level"]);
}
