#include "sim/app/fault_script.h"

#include <regex.h>

#include <algorithm>
#include <charconv>
#include <iterator>
#include <vector>

#include "sim/app/text.h"
#include "sim/media/encoder_fault.h"
#include "sim/parties/server_fault.h"

namespace sim {

namespace {

struct FaultForm {
  const char* shown;
  FaultKind kind;
  const char* meaning;
  const char* pattern = nullptr;  //< of the words without "at" and "for"; null: they are as shown
  bool needs_times = false;
};
const FaultForm kForms[] = {
    {"fail CALL N|N-M|* [errno=E]", NodeFault{}, "the driver refuses calls, such as \"fail QBUF 2\"",
     R"(fail [A-Z0-9_]+ (\*|[0-9]+(-[0-9]+)?)( errno=[0-9]+)?)"},
    {"grant N", NodeFault{}, "the driver grants N buffers at most", "grant [0-9]+"},
    {"reqbufs returns count", NodeFault{}, "it answers as newer drivers do"},
    {"DQBUF|QUERYBUF gives index N", NodeFault{}, "its answers name that buffer",
     "(DQ|QUERY)BUF gives index [0-9]+"},
    {"at TIME unplug for TIME", HostFault::kNoCable, "the USB cable is pulled", "unplug", true},
    {"server dead", ServerFault::kDead, "the system server takes no messages"},
    {"server full", ServerFault::kFull, "it is dead, and its queues are full"},
    {"server slow", ServerFault::kSlow, "it takes 300 ms for each message"},
    {"server slow by TIME", ServerFault::kSlow, "it takes that long for each message"},
    {"server garbled", ServerFault::kGarbled, "it answers frames with anything"},
    {"server mute", ServerFault::kMute, "it takes frames and does not answer"},
    {"server misdirects", ServerFault::kMisdirected, "it answers another process's message type"},
    {"server answers twice", ServerFault::kAnswersTwice, "the answer to the frame before comes first"},
    {"server gone", ServerFault::kGone, "it has ended; its queues and segments go too"},
    {"server late", ServerFault::kLate, "it answers frames after 6 s"},
    {"server late by TIME", ServerFault::kLate, "it answers frames after that time"},
    {"encoder silent", EncoderFault::kSilent, "the encoder makes no frames"},
    {"encoder dead", EncoderFault::kDead, "it stops in the middle of a frame"},
    {"encoder slow by TIME", EncoderFault::kSlow, "it takes that much longer for each frame"},
    {"encoder wrong-size", EncoderFault::kWrongSize, "its frames have another size"},
    {"encoder posts", EncoderFault::kPosts, "it announces frames that it does not make"},
    {"encoder gone", EncoderFault::kGone, "it has ended; ring and semaphores go too"},
    {"log queue full", CollectorFault::kQueueFull, "the log collector pauses with its queue full"},
    {"collector gone", CollectorFault::kGone, "it has ended; its queue goes too"},
    {"host rests", HostFault::kRests, "the USB host takes no frames"},
};

constexpr double kLongestTime = 1e6;

// Seconds of "1.5s" or "300ms".
std::optional<double> parse_time(std::string_view text) {
  double value = 0;
  const auto [rest, failure] = std::from_chars(text.data(), text.data() + text.size(), value);
  const std::string_view unit(rest, text.data() + text.size());
  if (failure != std::errc() || !(value >= 0 && value <= kLongestTime)) return std::nullopt;
  if (unit == "s") return value;
  if (unit == "ms") return value / 1000;
  return std::nullopt;
}

// Takes `word TIME` out of the words. False when the word is there without a time.
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
  if (!form.pattern) return action == form.shown;
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
  std::optional<double> at, duration, by;
  if (!take_time(words, "at", at, error) || !take_time(words, "for", duration, error) ||
      !take_time(words, "by", by, error))
    return std::nullopt;
  const std::string action = joined(words) + (by ? " by TIME" : "");
  const auto form = std::ranges::find_if(kForms, [&](const FaultForm& row) { return fits(row, action); });
  if (form == std::end(kForms)) {
    error = "no such fault: \"" + action + '"';
    return std::nullopt;
  }
  if (form->needs_times && !(at && duration)) {
    error = '"' + action + "\" needs \"at TIME\" and \"for TIME\"";
    return std::nullopt;
  }
  Fault fault{
      .kind = form->kind, .by = by, .at = at.value_or(0), .duration = duration, .text = std::string(text)};
  if (auto* node = std::get_if<NodeFault>(&fault.kind)) node->text = action;
  return fault;
}

std::vector<FaultShape> fault_shapes() {
  std::vector<FaultShape> shapes;
  for (const FaultForm& form : kForms) shapes.push_back({form.shown, form.meaning});
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
