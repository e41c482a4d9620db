// Files of a run's root folder that only the simulator's own sources use.
#pragma once

#include <string>

namespace sim {

constexpr char kShellLog[] = "/shell.log";
constexpr char kRegisterLog[] = "/registers.log";
constexpr char kI2cLog[] = "/i2c.log";

/// Appends one line to a log of the current run. Lines stay whole even if several processes write.
void append_log(const char* log, std::string line);

}  // namespace sim
