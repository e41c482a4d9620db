// What every benchmark program shares: its benchmarks run interleaved and repeated, and their medians come
// back so that the program can print ratios within the one run.
#pragma once

#include <initializer_list>
#include <map>
#include <string>

/// Median time in nanoseconds by benchmark name, as registered ("name/argument"), of manual or CPU time.
using Medians = std::map<std::string, double>;

/// Runs the registered benchmarks. Options are taken in this order, the later ones winning: the shared ones,
/// the program's `own`, the command line's.
Medians run_benchmarks(int argc, char** argv, std::initializer_list<const char*> own = {});
