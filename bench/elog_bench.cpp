// Measures what one log line costs, compared with the two system calls that it needs in any case. Every timed
// loop takes its record off the queue again, so that the compared loops differ only by the logger.
#include <benchmark/benchmark.h>
#include <sys/msg.h>

#include <cstdarg>
#include <cstdio>
#include <string>

#include "bench/medians.h"
#include "elog/elog.h"
#include "elog/elog_record.h"
#include "sim/seam/run.h"

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

char printed[kElogTextSize];

[[gnu::noinline, gnu::format(printf, 1, 2)]] void print(const char* format, ...) {
  va_list args;
  va_start(args, format);
  std::vsnprintf(printed, sizeof(printed), format, args);
  va_end(args);
}

void print_text() { print("stream is on\n"); }
void print_value() { print("no buffer %d\n", 17); }
void print_values() { print("frame %d: %s has %u bytes\n", 17, "slot", 123456u); }

void print_nothing() {}

void line_to_queue(benchmark::State& state, void (*log)()) {
  for (auto _ : state) {
    log();
    take_record();
  }
}

// Sends the same records as line_to_queue, unchanged; `print` adds the C library's formatting.
void system_calls(benchmark::State& state, void (*log)(), void (*print)()) {
  ElogRecord record;
  log();
  const auto size = msgrcv(queue, &record, sizeof(record.payload), 0, IPC_NOWAIT);
  for (auto _ : state) {
    print();
    benchmark::ClobberMemory();
    msqid_ds info;
    msgctl(queue, IPC_STAT, &info);
    if (msgsnd(queue, &record, static_cast<std::size_t>(size), IPC_NOWAIT) < 0) state.SkipWithError("msgsnd");
    take_record();
  }
}

struct Row {
  std::string what;
  void (*log)();
  void (*print)();
};
const Row kRows[] = {{"plain text, info", log_text, print_text},
                     {"one value, warn", log_value, print_value},
                     {"three values, info", log_values, print_values}};

void register_row(const Row& row) {
  const auto line = [&row](benchmark::State& state) { line_to_queue(state, row.log); };
  const auto calls = [&row](benchmark::State& state) { system_calls(state, row.log, print_nothing); };
  const auto calls_and_print = [&row](benchmark::State& state) { system_calls(state, row.log, row.print); };
  benchmark::RegisterBenchmark(("line/" + row.what).c_str(), line)->Iterations(1000);
  benchmark::RegisterBenchmark(("calls/" + row.what).c_str(), calls)->Iterations(1000);
  benchmark::RegisterBenchmark(("calls and print/" + row.what).c_str(), calls_and_print)->Iterations(1000);
}

void line_below_level(benchmark::State& state) {
  for (auto _ : state) {
    elog_output(ELOG_LVL_DEBUG, "NO_TAG", "uvc_gadget.c", "uvc_video_fill_buffer", 1234, "frame %d\n", 17);
  }
}

BENCHMARK(line_below_level)->Iterations(100000);

}  // namespace

int main(int argc, char** argv) {
  const sim::Run run;
  queue = msgget(sim::run_key(kElogQueueKey), IPC_CREAT | 0600);
  log_module_init(ELOG_LVL_INFO);
  for (const Row& row : kRows) register_row(row);
  // There are many short rounds, so that one that another process interrupts does not move the median.
  Medians ns = run_benchmarks(argc, argv, {"--benchmark_repetitions=401"});
  for (const auto& [what, log, print] : kRows) {
    const double calls = ns["calls/" + what];
    std::printf(
        "log line to the queue (%s): %+.3f us on top of its two system calls (aim: at most +0.25 us); "
        "vsnprintf alone: %+.3f us\n",
        what.c_str(), (ns["line/" + what] - calls) / 1000, (ns["calls and print/" + what] - calls) / 1000);
  }
  std::printf("log line below the level: %.1f ns on top of an empty loop (aim: at most 10 ns)\n",
              ns["line_below_level"]);
}
