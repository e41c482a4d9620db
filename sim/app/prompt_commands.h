// The commands of the prompt, one row each.
#pragma once

#include <optional>
#include <span>
#include <string>
#include <vector>

#include "sim/app/line_reader.h"
#include "sim/app/session.h"
#include "sim/app/stream_copy.h"
#include "sim/app/text.h"

namespace sim {

/// A stream that runs until a command ends it.
struct RunningStream {
  StreamChoice choice;
  unsigned unplugs;                ///< the host's count when it began
  std::optional<StreamCopy> copy;  ///< of the payloads, if they are to be written
};

/// What the commands have in common.
struct Prompt {
  Session& session;
  std::ostream* standard_output = nullptr;  ///< free of text; null: none was asked for
  std::optional<RunningStream> stream{};
  std::size_t server_lines = 0;  ///< lines of the server that were already shown
  bool over = false;
};

/// What follows a command's name.
using Words = std::span<const std::string>;

enum class Needs {
  kNothing,
  kCable,    ///< refused with kUnplugged without it
  kOwnHost,  ///< refused if the host is not ours
};

struct Command {
  const char* name;
  const char* arguments;  ///< as the help shows them
  const char* help;
  std::size_t least, most;  ///< the number of words that it takes
  Complaint (*run)(Prompt&, Words);
  Choices (*choices)(Words) = nullptr;  ///< for the last word; null if none are known
  Needs needs = Needs::kNothing;
};
constexpr char kUnplugged[] = "the cable is unplugged; \"plug\" puts it in";

std::span<const Command> commands();
const Command* find_command(std::string_view name);  ///< returns null if there is none
/// Returns a text such as "stream [start] FORMAT ...".
std::string usage(const Command& command);

// Controls, in sim/app/prompt_controls.cpp.
Complaint list_controls(Prompt&, Words);
Complaint get_controls(Prompt&, Words names);
Complaint set_controls(Prompt&, Words names_and_values);
Complaint extension_unit(Prompt&, Words selector_and_request);
Complaint raw_request(Prompt&, Words setup_and_data);
Choices get_choices(Words);
Choices set_choices(Words);
Choices extension_choices(Words);

// Streams and pictures, in sim/app/prompt_stream.cpp.
Complaint stream(Prompt&, Words order);
Complaint stop_stream(Prompt&);  ///< prints its row
Complaint write_picture(Prompt&, Words path);
Choices stream_choices(Words);
/// Reads "FORMAT [WxH] [at RATE]".
Complaint parse_choice(const Prompt&, Words words, StreamChoice& choice);

}  // namespace sim
