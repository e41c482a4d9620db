// Lines of commands: on a terminal with editing, history and completion (GNU readline), else as they stand on
// standard input.
#pragma once

#include <functional>
#include <optional>
#include <string>
#include <vector>

namespace sim {

/// What a word may be; nothing: a file's name.
using Choices = std::optional<std::vector<std::string>>;

/// One at a time. For the main thread.
class LineReader {
 public:
  /// What the last of these words, begun or empty, may become.
  using Completer = std::function<Choices(const std::vector<std::string>& words)>;

  /// The history lies in `program`'s folder under $XDG_STATE_HOME or ~/.local/state, and keeps 1000 lines.
  LineReader(std::string program, Completer completer);
  ~LineReader();  ///< writes the history
  LineReader(const LineReader&) = delete;

  /// The next line; nothing at the end of input. On a terminal a signal that a handler has noted in
  /// `interrupted` cuts it short: the line is empty then.
  std::optional<std::string> next();
  /// Both input and output are a terminal.
  bool on_terminal() const { return on_terminal_; }
  unsigned line_number() const { return line_number_; }  ///< of the last line; the first is 1

 private:
  std::optional<std::string> edited();

  const std::string program_;
  const bool on_terminal_;
  const std::string history_;  ///< a path; empty: there is no place for it
  unsigned line_number_ = 0;
};

}  // namespace sim
