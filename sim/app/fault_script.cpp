#include "sim/app/fault_script.h"

#include <regex.h>

#include <algorithm>
#include <charconv>
#include <iterator>
#include <vector>

#include "sim/app/text.h"

namespace sim {

namespace {

struct FaultForm {
  const char* pattern;  ///< of the words without their times
  FaultKind kind;
  const char* shown;
  const char* meaning;
  bool needs_times = false;
};
constexpr FaultForm kForms[] = {
    {R"(fail [A-Z0-9_]+ (\*|[0-9]+(-[0-9]+)?)( errno=[0-9]+)?)", FaultKind::kNode,
     "fail CALL N|N-M|* [errno=E]", "the driver refuses calls, such as \"fail QBUF 2\""},
    {"grant [0-9]+", FaultKind::kNode, "grant N", "the driver grants N buffers at most"},
    {"reqbufs returns count", FaultKind::kNode, "reqbufs returns count", "it answers as newer drivers do"},
    {"(DQ|QUERY)BUF gives index [0-9]+", FaultKind::kNode, "DQBUF|QUERYBUF gives index N",
     "its answers name that buffer"},
    {"unplug", FaultKind::kUnplug, "at TIME unplug for TIME", "the USB cable is pulled", true},
    {"server dead", FaultKind::kServerDead, "server dead", "the system server takes no messages"},
    {"server full", FaultKind::kServerFull, "server full", "it is dead, and its queues are full"},
    {"server slow", FaultKind::kServerSlow, "server slow", "it takes 300 ms for each"},
    {"server garbled", FaultKind::kServerGarbled, "server garbled", "it answers frames with anything"},
    {"server mute", FaultKind::kServerMute, "server mute", "it takes frames and does not answer"},
    {"server misdirects", FaultKind::kServerMisdirects, "server misdirects",
     "it answers another process's message type"},
    {"server answers twice", FaultKind::kServerAnswersTwice, "server answers twice",
     "the answer to the frame before comes first"},
    {"server gone", FaultKind::kServerGone, "server gone", "it has ended; its queues and segments go too"},
    {"server late", FaultKind::kServerLate, "server late", "it answers frames after 6 s"},
    {"encoder silent", FaultKind::kEncoderSilent, "encoder silent", "the encoder makes no frames"},
    {"encoder dead", FaultKind::kEncoderDead, "encoder dead", "it stops in the middle of a frame"},
    {"encoder wrong-size", FaultKind::kEncoderWrongSize, "encoder wrong-size",
     "its frames have another size"},
    {"encoder posts", FaultKind::kEncoderPosts, "encoder posts", "it tells of frames that it does not make"},
    {"encoder gone", FaultKind::kEncoderGone, "encoder gone", "it has ended; ring and semaphores go too"},
    {"log queue full", FaultKind::kLogQueueFull, "log queue full",
     "the log collector rests, its queue is full"},
    {"collector gone", FaultKind::kCollectorGone, "collector gone", "it has ended; its queue goes too"},
    {"host rests", FaultKind::kHostRests, "host rests", "the USB host takes no frames"},
};

constexpr double kLongestTime = 1e6;

/// Seconds of "1.5s" or "300ms".
std::optional<double> parse_time(std::string_view text) {
  double value = 0;
  const auto [rest, failure] = std::from_chars(text.data(), text.data() + text.size(), value);
  const std::string_view unit(rest, text.data() + text.size());
  if (failure != std::errc() || !(value >= 0 && value <= kLongestTime)) return std::nullopt;
  if (unit == "s") return value;
  if (unit == "ms") return value / 1000;
  return std::nullopt;
}

/// Takes `word TIME` out of the words. False when the word is there without a time.
bool take_time(std::vector<std::string>& words, std::string_view word, std::optional<double>& time,
               std::string& error) {
  const auto found = std::ranges::find(words, word);
  if (found == words.end()) return true;
  const bool last = found + 1 == words.end();
  time = last ? std::nullopt : parse_time(found[1]);
  if (!time) {
    error = '"' + std::string(word) + "\" needs a time such as 1.5s or 300ms" +
            (last ? "" : ", not \"" + found[1] + '"');
    return false;
  }
  words.erase(found, found + 2);
  return true;
}

bool fits(const FaultForm& form, const std::string& action) {
  regex_t pattern;
  if (regcomp(&pattern, (std::string("^(") + form.pattern + ")$").c_str(), REG_EXTENDED | REG_NOSUB) != 0) {
    return false;
  }
  const bool matches = regexec(&pattern, action.c_str(), 0, nullptr, 0) == 0;
  regfree(&pattern);
  return matches;
}

}  // namespace

std::optional<Fault> parse_fault(std::string_view text, std::string& error) {
  std::vector<std::string> words = words_of(text);
  std::optional<double> at, duration;
  if (!take_time(words, "at", at, error) || !take_time(words, "for", duration, error)) return std::nullopt;
  const std::string action = joined(words);
  const auto form = std::ranges::find_if(kForms, [&](const FaultForm& row) { return fits(row, action); });
  if (form == std::end(kForms)) {
    error = "no such fault: \"" + action + '"';
    return std::nullopt;
  }
  if (form->needs_times && !(at && duration)) {
    error = '"' + action + "\" needs \"at TIME\" and \"for TIME\"";
    return std::nullopt;
  }
  return Fault{.kind = form->kind,
               .node_text = form->kind == FaultKind::kNode ? action : "",
               .at = at.value_or(0),
               .duration = duration,
               .text = std::string(text)};
}

std::vector<std::string> fault_shapes() {
  std::vector<std::string> shapes;
  for (const FaultForm& form : kForms) shapes.push_back(form.shown);
  return shapes;
}

std::string fault_forms(std::string_view indent) {
  std::string text;
  for (const FaultForm& form : kForms) {
    std::string line = std::string(indent) + form.shown;
    line.resize(std::max(line.size() + 1, indent.size() + 30), ' ');
    text += line + form.meaning + '\n';
  }
  return text;
}

}  // namespace sim
