#include "sim/app/line_reader.h"

#include <readline/history.h>
#include <readline/readline.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <iostream>
#include <memory>
#include <utility>

#include "sim/app/session.h"
#include "sim/app/text.h"

namespace sim {

namespace {

constexpr int kHistoryLines = 1000;

// Readline's callbacks take no object, so these are global.
LineReader::Completer completer;
LineReader::Status shown_status;
std::vector<std::string> candidates;

std::string history_path(const std::string& program) {
  const char* const state = std::getenv("XDG_STATE_HOME");
  const char* const home = std::getenv("HOME");
  if (state && *state == '/') return std::string(state) + '/' + program + "/history";
  return home ? std::string(home) + "/.local/state/" + program + "/history" : "";
}

// Readline frees the strings that it is given.
char* next_candidate(const char* begun, int state) {
  static std::size_t next;
  if (state == 0) next = 0;
  while (next < candidates.size()) {
    const std::string& candidate = candidates[next++];
    if (candidate.starts_with(begun)) return strdup(candidate.c_str());
  }
  return nullptr;
}

char** complete(const char* begun, int start, int) {
  std::vector<std::string> words =
      words_of(std::string_view(rl_line_buffer, static_cast<std::size_t>(start)));
  words.push_back(begun);
  const Choices choices = completer(words);
  if (!choices) return nullptr;  // readline then completes file names
  rl_attempted_completion_over = 1;
  candidates = *choices;
  return rl_completion_matches(begun, next_candidate);
}

// Readline calls this ten times a second while it waits for a key.
int look_around() {
  if (interrupted) rl_done = 1;
  if (const std::string now = shown_status() + "> "; now != rl_prompt) {
    rl_set_prompt(now.c_str());
    rl_redisplay();
  }
  return 0;
}

void set_up(const std::string& program) {
  rl_readline_name = program.c_str();
  rl_attempted_completion_function = complete;
  rl_completer_word_break_characters = const_cast<char*>(" \t");
  rl_event_hook = look_around;
  using_history();
  stifle_history(kHistoryLines);
}

void keep_in_history(const std::string& line) {
  const HIST_ENTRY* const last =
      history_length > 0 ? history_get(history_base + history_length - 1) : nullptr;
  if (!line.empty() && !(last && line == last->line)) add_history(line.c_str());
}

}  // namespace

LineReader::LineReader(std::string program, Completer wanted, Status shown)
    : program_(std::move(program)),
      on_terminal_(isatty(STDIN_FILENO) && isatty(STDOUT_FILENO)),
      history_(history_path(program_)) {
  if (!on_terminal_) return;
  completer = std::move(wanted);
  shown_status = shown ? std::move(shown) : [name = program_] { return name; };
  set_up(program_);
  if (!history_.empty()) read_history(history_.c_str());
}

LineReader::~LineReader() {
  if (!on_terminal_ || history_.empty()) return;
  std::error_code failure;
  std::filesystem::create_directories(std::filesystem::path(history_).parent_path(), failure);
  if (write_history(history_.c_str()) != 0) std::perror(history_.c_str());
}

std::optional<std::string> LineReader::next() {
  ++line_number_;
  if (on_terminal_) return edited();
  std::string line;
  return std::getline(std::cin, line) ? std::optional(line) : std::nullopt;
}

std::optional<std::string> LineReader::edited() {
  const std::unique_ptr<char, decltype(&std::free)> line(readline((shown_status() + "> ").c_str()),
                                                         std::free);
  if (interrupted) return "";
  if (!line) return std::nullopt;
  keep_in_history(line.get());
  return line.get();
}

}  // namespace sim
