// The prompt of camera_sim: commands from a terminal or a script, one a line, while the service runs.
#pragma once

#include "sim/app/line_reader.h"
#include "sim/app/session.h"

namespace sim {

/// Carries out the commands of standard input up to "quit" or its end. Input that is no terminal is a script:
/// it goes on after a command that failed, but the session is not good then.
void prompt(Session& session);

/// What the last of a command line's words, begun or empty, may become.
Choices completions(const std::vector<std::string>& words);

}  // namespace sim
