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

void log_text() {
  elog_output(ELOG_LVL_INFO, "NO_TAG", "uvc_gadget.c", "uvc_video_fill_buffer", 1234, "stream is on\n");
}
void log_value() {
  elog_output(ELOG_LVL_WARN, "NO_TAG", "uvc_gadget.c", "uvc_video_fill_buffer", 1234, "no buffer %d\n", 17);
}
void log_values() {
  elog_output(ELOG_LVL_INFO, "NO_TAG", "uvc_gadget.c", "uvc_video_fill_buffer", 1234,
              "frame %d: %s has %u bytes\n", 17, "slot", 123456u);
}

void line_to_queue(benchmark::State& state, void (*log)()) {
  for (auto _ : state) {
    log();
    take_record();
  }
}

/// The same records as line_to_queue's, sent as they are.
void system_calls(benchmark::State& state, void (*log)()) {
  ElogRecord record;
  log();
  const auto size = msgrcv(queue, &record, sizeof(record.payload), 0, IPC_NOWAIT);
  for (auto _ : state) {
    msqid_ds info;
    msgctl(queue, IPC_STAT, &info);
    if (msgsnd(queue, &record, static_cast<std::size_t>(size), IPC_NOWAIT) < 0) state.SkipWithError("msgsnd");
    take_record();
  }
}

void line_below_level(benchmark::State& state) {
  for (auto _ : state) {
    elog_output(ELOG_LVL_DEBUG, "NO_TAG", "uvc_gadget.c", "uvc_video_fill_buffer", 1234, "frame %d\n", 17);
  }
}

BENCHMARK_CAPTURE(system_calls, text, log_text)->Iterations(1000);
BENCHMARK_CAPTURE(line_to_queue, text, log_text)->Iterations(1000);
BENCHMARK_CAPTURE(system_calls, value, log_value)->Iterations(1000);
BENCHMARK_CAPTURE(line_to_queue, value, log_value)->Iterations(1000);
BENCHMARK_CAPTURE(system_calls, values, log_values)->Iterations(1000);
BENCHMARK_CAPTURE(line_to_queue, values, log_values)->Iterations(1000);
BENCHMARK(line_below_level)->Iterations(100000);

/// Prints as usual and keeps the medians, in nanoseconds.
class Medians : public benchmark::ConsoleReporter {
 public:
  Medians() : ConsoleReporter(OO_Tabular) {}
  void ReportRuns(const std::vector<Run>& runs) override {
    ConsoleReporter::ReportRuns(runs);
    for (const Run& run : runs)
      if (run.aggregate_name == "median") medians[run.run_name.function_name] = run.GetAdjustedCPUTime();
  }
  std::map<std::string, double> medians;
};

}  // namespace

int main(int argc, char** argv) {
  // Many short rounds: a round that another process interrupts does not move the median.
  std::vector<std::string> defaults = {"--benchmark_repetitions=201",
                                       "--benchmark_enable_random_interleaving=true",
                                       "--benchmark_report_aggregates_only=true"};
  std::vector<char*> arguments(argv, argv + argc);
  for (std::string& argument : defaults) arguments.insert(arguments.begin() + 1, argument.data());
  int count = static_cast<int>(arguments.size());
  benchmark::Initialize(&count, arguments.data());

  const sim::Run run;
  queue = msgget(sim::run_key(kElogQueueKey), IPC_CREAT | 0600);
  log_module_init(ELOG_LVL_INFO);
  Medians reporter;
  benchmark::RunSpecifiedBenchmarks(&reporter);
  auto& ns = reporter.medians;
  for (const auto& [name, what] : {std::pair{"text", "plain text, info"},
                                   {"value", "one value, warn"},
                                   {"values", "three values, info"}}) {
    const double more = ns[std::string("line_to_queue/") + name] - ns[std::string("system_calls/") + name];
    std::printf("log line to the queue (%s): %+.3f us above its two system calls (aim: at most +0.25 us)\n",
                what, more / 1000);
  }
  std::printf("log line below the level: %.1f ns (aim: at most 10 ns)\n", ns["line_below_level"]);
}
