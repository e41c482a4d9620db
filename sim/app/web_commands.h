// The commands of the page and of scripts, one row each, as docs/web.md lists them.
#pragma once

#include <span>
#include <vector>

#include "sim/app/head_motion.h"
#include "sim/app/prompt_commands.h"
#include "sim/app/web_state.h"
#include "sim/web/web_server.h"

namespace sim {

/// What the commands have in common.
struct Web {
  Prompt prompt;  ///< whose stream and commands these share
  Recording& recording;
  WebState& state;
  /// Kept running: started again after an unplug or an end of the service.
  std::optional<StreamChoice> wanted{};
  std::string trouble{};  ///< why it does not run
  struct SetFault {
    std::string text;
    std::optional<Session::Clock::time_point> end;
  };
  std::vector<SetFault> faults{};

  Session& session() { return prompt.session; }
  Camera& camera() { return prompt.session.camera(); }
};

struct WebArgument {
  enum class Kind { kText, kNumber, kBytes } kind;
  const char* name;
  bool optional = false;
};

struct WebRow {
  const char* name;
  std::vector<WebArgument> arguments;
  WebAnswer (*run)(Web&, const Json& arguments);
  bool changes = true;        ///< refused by GET
  bool needs_camera = false;  ///< refused without cable or service
};

std::span<const WebRow> web_rows();
/// Returns what is wrong with a command before it is carried out; status 200: nothing.
WebAnswer check(const WebCommand& command);
WebAnswer carry_out(Web& web, const WebCommand& command);

/// The speeds in the arguments of "move", which is not carried out like the others: it must not wait.
HeadMotion::Speeds speeds_in(const Json& arguments);
constexpr char kMoveCommand[] = "move";

/// Ends a stream that was cut, and starts the wanted one when the camera is there.
void look_after_stream(Web& web);

}  // namespace sim
