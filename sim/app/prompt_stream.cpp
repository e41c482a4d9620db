#include <algorithm>
#include <iterator>

#include "sim/app/options.h"
#include "sim/app/prompt_commands.h"
#include "sim/app/report.h"
#include "sim/app/text.h"

namespace sim {

namespace {

using namespace std::chrono_literals;

constexpr double kLongestStream = 24 * 3600;

// What a stream command requests.
struct Order {
  StreamChoice choice;
  std::optional<double> seconds{};
  std::string file{};
};

Complaint parse_order(Words words, Order& order) {
  const auto format = parse_format(words[0]);
  if (!format) return "no such format: \"" + words[0] + '"';
  order.choice.format = *format;
  order.choice.size = host_format(*format).sizes[0];
  for (words = words.subspan(1); !words.empty(); words = words.subspan(1)) {
    if (const auto size = parse_size(words[0])) {
      order.choice.size = *size;
      continue;
    }
    if (words.size() < 2) return "what is \"" + words[0] + "\"? See \"help stream\"";
    if (words[0] == "to") {
      order.file = words[1];
    } else if (words[0] == "at") {
      const auto rate = parse_rate(words[1]);
      if (!rate) return '"' + words[1] + "\" is not a rate from 1 to 60";
      order.choice.rate = *rate;
    } else if (words[0] != "for" || !(order.seconds = parse_number<double>(words[1], 0, kLongestStream))) {
      return "what is \"" + joined(words.first(2)) + "\"? See \"help stream\"";
    }
    words = words.subspan(1);
  }
  const auto sizes = host_format(*format).sizes;
  return std::ranges::find(sizes, order.choice.size) != sizes.end()
             ? ""
             : "the camera has no " + name_of(order.choice);
}

Complaint start_stream(Prompt& prompt, const Order& order) {
  if (prompt.stream) return "a stream is running already: " + name_of(prompt.stream->choice);
  UsbHost& host = prompt.session.camera().host;
  if (!host.plugged()) return kUnplugged;
  auto& copy = prompt.stream.emplace(order.choice, host.unplugs()).copy;
  std::ostream* const free_output = order.file == "-" ? prompt.standard_output : nullptr;
  if (!order.file.empty() && !free_output) copy.emplace(order.file);
  Complaint complaint;
  if (copy && !copy->stream()) {
    complaint = order.file + " cannot be written";
  } else if (!host.start(order.choice, copy ? &copy->stream() : free_output)) {
    complaint = host.error();
  }
  if (!complaint.empty()) prompt.stream.reset();
  return complaint;
}

ReportRow row_so_far(Prompt& prompt) {
  const StreamChoice& choice = prompt.stream->choice;
  return {name_of(choice), choice.rate, prompt.session.camera().host.progress(), {}};
}

// Waits until the time is over or the cable was pulled.
void wait_for_stream(Prompt& prompt, double seconds) {
  Session& session = prompt.session;
  const std::chrono::duration<double> time(seconds);
  const auto end = Session::Clock::now() + std::chrono::duration_cast<Session::Clock::duration>(time);
  const auto over = [&] {
    const UsbHost& host = session.camera().host;
    return host.unplugs() != prompt.stream->unplugs || Session::Clock::now() >= end ||
           !host.progress().copied;
  };
  while (session.going_on() && !over()) {
    session.wait(200ms, over);
    print_progress(row_so_far(prompt));
  }
}

}  // namespace

Complaint stop_stream(Prompt& prompt) {
  if (!prompt.stream) return "no stream is running";
  UsbHost& host = prompt.session.camera().host;
  ReportRow row = row_so_far(prompt);
  if (!prompt.session.service().running()) host.unplug();  // as the driver does then
  row.result = host.stop("");
  row.error = prompt.session.service().running() ? host.error() : "the service has ended";
  print_table_head();
  print_row(row);
  prompt.session.keep(finding_of(row));
  prompt.stream.reset();
  return is_good(row) ? "" : "the stream was not whole: " + verdict(row);
}

Complaint stream(Prompt& prompt, Words words) {
  if (joined(words) == "stop") return stop_stream(prompt);
  const bool goes_on = words[0] == "start";
  if (goes_on) words = words.subspan(1);
  if (words.empty()) return "a format is missing";
  const Options& options = prompt.session.options();
  Order order{.choice = {StreamFormat::kMjpeg, {}, options.rate}};
  Complaint complaint = parse_order(words, order);
  if (complaint.empty() && goes_on && order.seconds)
    complaint = "\"stream start\" runs until \"stream stop\"";
  if (complaint.empty()) complaint = start_stream(prompt, order);
  if (!complaint.empty() || goes_on) return complaint;
  wait_for_stream(prompt, order.seconds.value_or(options.duration));
  return stop_stream(prompt);
}

Complaint write_picture(Prompt& prompt, Words path) {
  UsbHost& host = prompt.session.camera().host;
  if (!host.plugged()) return kUnplugged;
  const StreamChoice choice{StreamFormat::kMjpeg, {1280, 720}, prompt.session.options().rate};
  if (!prompt.stream && !host.start(choice)) return host.error();
  const bool written = host.picture(path[0]).has_value();
  if (!prompt.stream) host.stop("");
  return written ? "" : "no picture came, or " + path[0] + " cannot be written";
}

Complaint parse_choice(const Prompt& prompt, Words words, StreamChoice& choice) {
  Order order{.choice = {StreamFormat::kMjpeg, {}, prompt.session.options().rate}};
  const Complaint complaint = parse_order(words, order);
  choice = order.choice;
  return complaint;
}

Choices stream_choices(Words words) {
  const bool start = words.size() > 1 && words[0] == "start";
  if (start) words = words.subspan(1);
  std::vector<std::string> choices;
  if (words.size() == 1) {
    if (!start) choices = {"start", "stop"};
    for (const HostFormat& format : host_formats()) choices.push_back(lower(format.name));
    return choices;
  }
  const std::string& before = words[words.size() - 2];
  if (before == "to") return std::nullopt;
  if (before == "for" || before == "at") return choices;
  choices = {"at", "for", "to"};
  if (const auto format = parse_format(before)) {
    for (const FrameSize& size : host_format(*format).sizes) {
      choices.push_back(std::to_string(size.width) + 'x' + std::to_string(size.height));
    }
  }
  return choices;
}

}  // namespace sim
