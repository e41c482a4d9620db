// What every benchmark program shares: its benchmarks run interleaved and repeated, and their medians come
// back so that the program can print ratios within the one run.
#pragma once

#include <map>
#include <string>

/// Median time in nanoseconds by benchmark name, as registered ("name/argument"), of manual or CPU time.
using Medians = std::map<std::string, double>;

/// Runs the registered benchmarks. The command line's own --benchmark_ options come last, so they win.
Medians run_benchmarks(int argc, char** argv);
