#include <linux/usb/video.h>

#include <algorithm>
#include <cstdio>
#include <iterator>

#include "sim/app/control_access.h"
#include "sim/app/prompt_commands.h"
#include "sim/app/table.h"
#include "sim/app/text.h"
#include "sim/host/host_controls.h"

namespace sim {

namespace {

struct NamedRequest {
  const char* name;
  u8 request;
};
constexpr NamedRequest kGets[] = {{"get", UVC_GET_CUR},  {"min", UVC_GET_MIN}, {"max", UVC_GET_MAX},
                                  {"res", UVC_GET_RES},  {"def", UVC_GET_DEF}, {"len", UVC_GET_LEN},
                                  {"info", UVC_GET_INFO}};

Conversation& conversation(Prompt& prompt) { return prompt.session.camera().conversation; }

// Shows it as the log has it, with what the server received.
void show_last_exchange(Prompt& prompt) {
  std::printf("%s\n", describe(conversation(prompt).exchanges().back()).c_str());
}

Complaint unknown_control(const std::string& name) {
  return "no such control: \"" + name + "\"; \"controls\" lists them";
}

Complaint check_taken(Prompt& prompt, const HostControl& control, i32 value) {
  const Reading reading = read_back(conversation(prompt), control, value);
  if (reading.complaint.empty() && *reading.value != value)
    std::printf("%s reads %d now\n", control.name, *reading.value);
  return reading.complaint;
}

Complaint set_one(Prompt& prompt, const std::string& name, const std::string& text) {
  const HostControl* const control = find_host_control(name);
  if (!control) return unknown_control(name);
  const Range range = range_of(*control);
  const auto value = parse_number<i32>(text, range.least, range.most);
  if (!value) return name + ": \"" + text + "\" is not a number that fits the control";
  const bool sent = set_control(conversation(prompt), *control, *value);
  show_last_exchange(prompt);
  const Complaint complaint = sent ? check_taken(prompt, *control, *value) : "the camera refuses it";
  return complaint.empty() ? "" : name + ": " + complaint;
}

std::optional<std::vector<u8>> bytes_of(Words words) {
  std::vector<u8> bytes;
  for (const std::string& word : words) {
    const auto byte = parse_number<u8>(word, 0, 255, 16);
    if (!byte) return std::nullopt;
    bytes.push_back(*byte);
  }
  return bytes.size() <= kLongestData ? std::optional(bytes) : std::nullopt;
}

Complaint set_extension(Prompt& prompt, u8 selector, Words words) {
  const auto bytes = bytes_of(words);
  if (!bytes || bytes->empty()) return "expected 1 to 64 bytes in hex, such as 0A FF";
  const Run& run = prompt.session.camera().run;
  const std::size_t commands_before = run.shell_log().size();
  const bool stalled = set_control(conversation(prompt), kExtensionUnit, selector, *bytes).stalled;
  show_last_exchange(prompt);
  if (const auto asked = words_of(run.shell_log().substr(commands_before)); !asked.empty())
    std::printf("the service asked its shell for: %s (nothing of this PC is touched)\n",
                joined(asked).c_str());
  return stalled ? "the camera refuses it" : "";
}

// Reads as many bytes as GET_LEN returns.
Complaint get_extension(Prompt& prompt, u8 selector, u8 request) {
  Conversation& host = conversation(prompt);
  const u16 length = answer_length(host, kExtensionUnit, selector, request);
  if (length == 0) return "GET_LEN is not answered";
  const bool stalled = get_control(host, kExtensionUnit, selector, request, length).stalled;
  show_last_exchange(prompt);
  return stalled ? "the camera does not answer" : "";
}

// "0xA1" or "161".
std::optional<u16> setup_number(std::string_view text, u16 most) {
  const bool hex = text.starts_with("0x");
  return parse_number<u16>(hex ? text.substr(2) : text, 0, most, hex ? 16 : 10);
}

std::vector<std::string> control_names() {
  std::vector<std::string> names;
  std::ranges::transform(host_controls(), std::back_inserter(names), &HostControl::name);
  return names;
}

}  // namespace

Complaint list_controls(Prompt& prompt, Words) {
  constexpr Column kColumns[] = {
      {"control", 28, 30},
      {"unit", 4, 4},
      {"min", 8, 9, CellKind::kNumber},
      {"max", 8, 9, CellKind::kNumber},
      {"step", 8, 9, CellKind::kNumber},
      {"default", 8, 9, CellKind::kNumber},
      {"value", 8, 9, CellKind::kNumber},
  };
  Conversation& host = conversation(prompt);
  constexpr u8 kLimits[] = {UVC_GET_MIN, UVC_GET_MAX, UVC_GET_RES, UVC_GET_DEF};
  const auto text = [](std::optional<i32> value) { return value ? std::to_string(*value) : "-"; };
  print_table_titles(kColumns);
  for (const HostControl& control : host_controls()) {
    std::vector<std::string> cells{control.name, control.entity == kCameraTerminal ? "CT" : "PU"};
    for (const u8 request : kLimits) cells.push_back(text(get_limit(host, control, request)));
    cells.push_back(text(get_control(host, control, UVC_GET_CUR)));
    print_table_row(kColumns, cells);
  }
  std::puts("\"-\": the camera does not give it, and answers what its answer buffer happens to hold");
  return "";
}

Complaint get_controls(Prompt& prompt, Words names) {
  const std::vector<std::string> all = control_names();
  for (const std::string& name : names[0] == "all" ? Words(all) : names) {
    const HostControl* const control = find_host_control(name);
    if (!control) return unknown_control(name);
    const auto value = get_control(conversation(prompt), *control, UVC_GET_CUR);
    if (!value) return name + ": the camera does not answer";
    std::printf("%s = %d\n", name.c_str(), *value);
  }
  return "";
}

Complaint set_controls(Prompt& prompt, Words words) {
  if (words.size() % 2) return "expected a value for each name";
  for (; !words.empty(); words = words.subspan(2)) {
    const Complaint complaint = set_one(prompt, words[0], words[1]);
    if (!complaint.empty()) return complaint;
  }
  return "";
}

Complaint extension_unit(Prompt& prompt, Words words) {
  const auto selector = setup_number(words[0], 255);
  if (!selector) return '"' + words[0] + "\" is not a selector from 0 to 255";
  const std::string request = words.size() > 1 ? words[1] : "get";
  const auto number = static_cast<u8>(*selector);
  if (request == "set") return set_extension(prompt, number, words.subspan(2));
  const auto found =
      std::ranges::find(kGets, request, [](const NamedRequest& row) { return std::string_view(row.name); });
  if (found == std::end(kGets) || words.size() > 2) return "usage: " + usage(*find_command("xu"));
  return get_extension(prompt, number, found->request);
}

Complaint raw_request(Prompt& prompt, Words words) {
  constexpr u16 kMost[] = {0xFF, 0xFF, 0xFFFF, 0xFFFF, 0xFFFF};
  u16 numbers[std::size(kMost)];
  for (std::size_t i = 0; i < std::size(kMost); ++i) {
    const auto number = setup_number(words[i], kMost[i]);
    if (!number) return '"' + words[i] + "\" is not a number up to " + std::to_string(kMost[i]);
    numbers[i] = *number;
  }
  const auto data = bytes_of(words.subspan(std::size(kMost)));
  if (!data) return "expected at most 64 bytes in hex, such as 0A FF";
  const usb_ctrlrequest setup{.bRequestType = static_cast<u8>(numbers[0]),
                              .bRequest = static_cast<u8>(numbers[1]),
                              .wValue = numbers[2],
                              .wIndex = numbers[3],
                              .wLength = numbers[4]};
  conversation(prompt).control(setup, *data);
  show_last_exchange(prompt);
  return "";
}

Choices get_choices(Words) {
  std::vector<std::string> names = control_names();
  names.push_back("all");
  return names;
}

Choices set_choices(Words words) { return words.size() % 2 ? control_names() : std::vector<std::string>(); }

Choices extension_choices(Words words) {
  if (words.size() != 2) return std::vector<std::string>();
  std::vector<std::string> requests{"set"};
  std::ranges::transform(kGets, std::back_inserter(requests), &NamedRequest::name);
  return requests;
}

}  // namespace sim
