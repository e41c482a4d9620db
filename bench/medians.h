// What all benchmark programs share: benchmarks run interleaved and repeated, and the program gets their
// medians, so that it can print ratios within one run.
#pragma once

#include <initializer_list>
#include <map>
#include <string>

/// The median time in nanoseconds by benchmark name, as registered ("name/argument"), in manual or CPU time.
using Medians = std::map<std::string, double>;

/// Runs the registered benchmarks. Options are applied in this order, later ones overriding earlier ones: the
/// shared ones, the program's `own`, the command line's.
Medians run_benchmarks(int argc, char** argv, std::initializer_list<const char*> own = {});
