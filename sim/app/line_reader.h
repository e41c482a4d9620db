// Lines of commands: on a terminal with editing, history and completion (GNU readline), otherwise as they are
// on standard input.
#pragma once

#include <functional>
#include <optional>
#include <string>
#include <vector>

namespace sim {

/// What a word may be; if empty, a file name.
using Choices = std::optional<std::vector<std::string>>;

/// There may be one at a time, on the main thread.
class LineReader {
 public:
  /// Returns what the last of these words, which may be incomplete or empty, can become.
  using Completer = std::function<Choices(const std::vector<std::string>& words)>;
  /// Returns what stands before the line, which is shown anew when it changes.
  using Status = std::function<std::string()>;

  /// The history is in `program`'s folder under $XDG_STATE_HOME or ~/.local/state and keeps 1000 lines.
  LineReader(std::string program, Completer completer, Status status = {});
  ~LineReader();  ///< writes the history
  LineReader(const LineReader&) = delete;

  /// Returns the next line, or nothing at the end of input. On a terminal, a signal that a handler has noted
  /// in `interrupted` cuts the line short: it is empty then.
  std::optional<std::string> next();
  /// Returns true if both input and output are a terminal.
  bool on_terminal() const { return on_terminal_; }
  unsigned line_number() const { return line_number_; }  ///< of the last line; the first is 1

 private:
  std::optional<std::string> edited();

  const std::string program_;
  const bool on_terminal_;
  const std::string history_;  ///< a path; empty if there is no place for it
  unsigned line_number_ = 0;
};

}  // namespace sim
