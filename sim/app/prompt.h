// The prompt of camera_sim: commands from a terminal or a script, one per line, while the service runs.
#pragma once

#include "sim/app/line_reader.h"
#include "sim/app/session.h"

namespace sim {

/// Carries out the commands from standard input until "quit" or its end. Input that is not a terminal is a
/// script: it goes on after a command that failed, but the session then counts as failed.
/// "stream ... to -" goes to `standard_output`, unless that is null; then to the real one, amid the text.
/// On a terminal, `status` tells what stands before the commands. With a host that is not ours, Ctrl-C ends
/// the session, but the end of a script does not.
void prompt(Session& session, std::ostream* standard_output, LineReader::Status status = {});

/// Returns what the last word of a command line, which may be incomplete or empty, can become.
Choices completions(const std::vector<std::string>& words);

}  // namespace sim
