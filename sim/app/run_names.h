// What a process of the user's own needs to take part in a run: its keys and names, which differ from the
// camera's so that runs do not disturb each other.
#pragma once

#include <string>

namespace sim {

/// Prints the keys and names of the current run, and writes them to `path` as lines "NAME=VALUE" that a shell
/// reads. Prints an error and returns false if the file cannot be written.
bool tell_run_names(const std::string& path);

/// Returns true if the current run has the parameter segment that a system server creates.
bool server_exists();

}  // namespace sim
