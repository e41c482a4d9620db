#include "bench/medians.h"

#include <benchmark/benchmark.h>

#include <cstdlib>
#include <vector>

namespace {

class KeepMedians : public benchmark::ConsoleReporter {
 public:
  KeepMedians() : ConsoleReporter(OO_None) {}

  void ReportRuns(const std::vector<Run>& runs) override {
    for (const Run& run : runs) {
      if (run.aggregate_name != "median") continue;
      ConsoleReporter::ReportRuns({run});
      std::string name = run.run_name.function_name;
      if (!run.run_name.args.empty()) name += "/" + run.run_name.args;
      const bool manual = run.run_name.time_type == "manual_time";
      medians[name] = manual ? run.GetAdjustedRealTime() : run.GetAdjustedCPUTime();
    }
  }
  Medians medians;
};

}  // namespace

Medians run_benchmarks(int argc, char** argv, std::initializer_list<const char*> own) {
  std::vector<std::string> options = {"--benchmark_repetitions=15",
                                      "--benchmark_enable_random_interleaving=true",
                                      "--benchmark_report_aggregates_only=true", "--benchmark_min_time=0.05"};
  options.insert(options.end(), own.begin(), own.end());
  options.insert(options.end(), argv + 1, argv + argc);
  std::vector<char*> arguments = {argv[0]};
  for (std::string& option : options) arguments.push_back(option.data());
  int count = static_cast<int>(arguments.size());
  benchmark::Initialize(&count, arguments.data());
  if (benchmark::ReportUnrecognizedArguments(count, arguments.data())) std::exit(1);
  KeepMedians reporter;
  benchmark::RunSpecifiedBenchmarks(&reporter);
  return reporter.medians;
}
