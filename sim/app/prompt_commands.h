// The commands of the prompt: a row each.
#pragma once

#include <fstream>
#include <optional>
#include <span>
#include <string>
#include <vector>

#include "sim/app/line_reader.h"
#include "sim/app/session.h"
#include "sim/app/text.h"

namespace sim {

/// A stream that goes on until a command ends it.
struct RunningStream {
  StreamChoice choice;
  unsigned unplugs;    ///< of the host when it began
  std::ofstream copy;  ///< open when the payloads are wanted
};

/// What the commands share.
struct Prompt {
  Session& session;
  std::optional<RunningStream> stream{};
  std::size_t server_lines = 0;  ///< of the server's that were shown
  bool over = false;
};

/// What follows a command's name.
using Words = std::span<const std::string>;

struct Command {
  const char* name;
  const char* arguments;  ///< as help shows them
  const char* help;
  std::size_t least, most;  ///< words that it takes
  Complaint (*run)(Prompt&, Words);
  Choices (*choices)(Words) = nullptr;  ///< for the last word; null: none are known
  bool needs_cable = false;             ///< is refused with kUnplugged without
};
constexpr char kUnplugged[] = "the cable is unplugged; \"plug\" puts it in";

std::span<const Command> commands();
const Command* find_command(std::string_view name);  ///< null: there is none
/// "stream [start] FORMAT ...".
std::string usage(const Command& command);

// Controls: sim/app/prompt_controls.cpp.
Complaint list_controls(Prompt&, Words);
Complaint get_controls(Prompt&, Words names);
Complaint set_controls(Prompt&, Words names_and_values);
Complaint extension_unit(Prompt&, Words selector_and_request);
Complaint raw_request(Prompt&, Words setup_and_data);
Choices get_choices(Words);
Choices set_choices(Words);
Choices extension_choices(Words);

// Streams and pictures: sim/app/prompt_stream.cpp.
Complaint stream(Prompt&, Words order);
Complaint stop_stream(Prompt&);  ///< prints its row
Complaint write_picture(Prompt&, Words path);
Choices stream_choices(Words);

}  // namespace sim
