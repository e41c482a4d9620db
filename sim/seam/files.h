// Files of a run's root folder that are the simulator's own, for the simulator's own sources.
#pragma once

#include <string>

namespace sim {

constexpr char kShellLog[] = "/shell.log";
constexpr char kRegisterLog[] = "/registers.log";
constexpr char kI2cLog[] = "/i2c.log";

/// Appends one line to a log of the current run; whole lines also when several processes write.
void append_log(const char* log, std::string line);

}  // namespace sim
