#include "sim/app/prompt.h"

#include <algorithm>
#include <cstdio>

#include "sim/app/options.h"
#include "sim/app/prompt_commands.h"
#include "sim/app/text.h"

namespace sim {

namespace {

Complaint carry_out(Prompt& prompt, const std::string& line) {
  const std::vector<std::string> words = words_of(line);
  if (words.empty() || words[0].starts_with('#')) return "";
  const Command* const command = find_command(words[0]);
  if (!command) return "no such command: \"" + words[0] + "\"; see help";
  const Words arguments = Words(words).subspan(1);
  if (arguments.size() < command->least || arguments.size() > command->most) {
    return "usage: " + usage(*command);
  }
  if (command->needs == Needs::kCable && !prompt.session.camera().host.plugged()) return kUnplugged;
  if (command->needs == Needs::kOwnHost && prompt.session.options().attach)
    return "streams are the host's: use its programs";
  return command->run(prompt, arguments);
}

void report(Session& session, const LineReader& reader, const Complaint& complaint) {
  std::fflush(stdout);
  if (complaint.empty()) return;
  if (reader.on_terminal()) {
    std::fprintf(stderr, "%s\n", complaint.c_str());
    return;
  }
  std::fprintf(stderr, "line %u: %s\n", reader.line_number(), complaint.c_str());
  session.keep({.group = "prompt",
                .name = "line " + std::to_string(reader.line_number()),
                .good = false,
                .verdict = complaint});
}

// On a terminal Ctrl-C ends a line or a command, not the session, unless that is a foreign host's.
bool ends_session(const Session& session, const LineReader& reader) {
  if (!reader.on_terminal() || session.options().attach || interrupted != SIGINT) return interrupted;
  interrupted = 0;
  std::puts("");
  return false;
}

}  // namespace

Choices completions(const std::vector<std::string>& words) {
  if (words.size() > 1) {
    const Command* const command = find_command(words[0]);
    if (command && command->choices) return command->choices(Words(words).subspan(1));
    return std::vector<std::string>();
  }
  std::vector<std::string> names;
  std::ranges::transform(commands(), std::back_inserter(names), &Command::name);
  return names;
}

void prompt(Session& session, std::ostream* standard_output, LineReader::Status status) {
  LineReader reader("camera_sim", completions, std::move(status));
  if (reader.on_terminal()) std::puts("\"help\" lists the commands, Tab completes; \"quit\" or Ctrl-D ends.");
  Prompt prompt{.session = session, .standard_output = standard_output};
  while (!prompt.over && !ends_session(session, reader)) {
    const auto line = reader.next();
    if (!line) break;
    report(session, reader, carry_out(prompt, *line));
  }
  while (session.options().attach && !reader.on_terminal() && !prompt.over && !interrupted)
    std::this_thread::sleep_for(std::chrono::milliseconds(50));
  if (prompt.stream) report(session, reader, stop_stream(prompt));
}

}  // namespace sim
