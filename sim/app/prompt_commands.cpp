#include "sim/app/prompt_commands.h"

#include <algorithm>
#include <cstdio>
#include <iterator>
#include <limits>

#include "sim/app/fault_script.h"
#include "sim/app/options.h"
#include "sim/app/table.h"
#include "sim/app/text.h"

namespace sim {

namespace {

constexpr std::size_t kAnyNumber = 1000;
constexpr u32 kLogLines = 10;
constexpr double kLongestWait = 3600;

constexpr Column kHelpColumns[] = {{"command", 32, 58}, {"what it does", 40, 80}};

Complaint help(Prompt&, Words words) {
  for (const Command& command : commands()) {
    if (words.empty() || words[0] == command.name)
      print_table_row(kHelpColumns, {usage(command), command.help});
  }
  if (words.empty()) return "";
  if (words[0] == "fault") std::printf("%s", fault_forms("  ").c_str());
  return find_command(words[0]) ? "" : "no such command: \"" + words[0] + '"';
}

Choices help_choices(Words) {
  std::vector<std::string> names;
  std::ranges::transform(commands(), std::back_inserter(names), &Command::name);
  return names;
}

Complaint plug(Prompt& prompt, Words) {
  const UsbHost& host = prompt.session.camera().host;
  if (host.plugged()) return "the cable is plugged in already";
  return prompt.session.plug_in() ? "" : "the device is not as expected: " + host.error();
}

Complaint unplug(Prompt& prompt, Words) {
  UsbHost& host = prompt.session.camera().host;
  if (!host.plugged()) return "the cable is unplugged already";
  host.unplug();
  return "";
}

// Ends every fault but a pulled cable.
Complaint clear_faults(Prompt& prompt) {
  const FaultKind kinds[] = {NodeFault{},           ServerFault{},
                             EncoderFault{},        CollectorFault::kQueueFull,
                             CollectorFault::kGone, HostFault::kRests};
  for (const FaultKind& kind : kinds) {
    if (const Fault fault{.kind = kind}; prompt.session.options().cannot_play(fault).empty())
      set_fault(prompt.session.camera(), fault, false);
  }
  return "";
}

Complaint fault(Prompt& prompt, Words words) {
  if (joined(words) == "clear") return clear_faults(prompt);
  std::string error;
  const auto fault = parse_fault(joined(words), error);
  if (!fault) return error + "; \"help fault\" shows the forms";
  if (Complaint why = prompt.session.options().cannot_play(*fault); !why.empty()) return why;
  if (fault->at == 0) set_fault(prompt.session.camera(), *fault, true);
  prompt.session.schedule(*fault);
  return "";
}

// Returns the next words of the forms that begin like the line, without placeholders.
Choices fault_choices(Words words) {
  std::vector<std::string> choices{"clear"};
  if (words.size() > 1) choices = {"at", "for"};
  for (const FaultShape& shape : fault_shapes()) {
    const std::vector<std::string> parts = words_of(shape.shown);
    if (parts.size() < words.size() || !std::equal(words.begin(), words.end() - 1, parts.begin())) continue;
    const std::string& next = parts[words.size() - 1];
    if (next == lower(next)) choices.push_back(next);
  }
  return choices;
}

Complaint look(Prompt& prompt, Words) {
  const CameraHead& head = prompt.session.camera().parties.head;
  const CameraView view = head.view();
  const PictureSettings& settings = view.settings;
  std::printf("pan %.1f tilt %.1f degrees, zoom %.2f (lens at %d of %d)%s\n", view.pan, view.tilt, view.zoom,
              head.zoom_position(), kZoomEnd, head.moving() ? ", moving" : "");
  std::printf("brightness %u contrast %u saturation %u sharpness %u gamma %u gain %u\n", settings.brightness,
              settings.contrast, settings.saturation, settings.sharpness, settings.gamma, settings.gain);
  std::printf("power line %u, picture mode 0x%02X, backlight compensation %s\n", settings.power_line,
              settings.picture_mode, settings.backlight ? "on" : "off");
  std::printf("%s exposure, %s white balance (%u K)\n", settings.auto_exposure ? "automatic" : "manual",
              settings.auto_white_balance ? "automatic" : "manual", settings.white_balance);
  return "";
}

Complaint server(Prompt& prompt, Words) {
  const auto lines = received(prompt.session.camera().parties, prompt.server_lines);
  for (const std::string& line : lines) std::printf("%s\n", line.c_str());
  prompt.server_lines += lines.size();
  return "";
}

Complaint log(Prompt& prompt, Words words) {
  const auto wanted =
      words.empty() ? kLogLines : parse_number<u32>(words[0], 1, std::numeric_limits<u32>::max());
  if (!wanted) return '"' + words[0] + "\" is not a number of lines";
  const auto exchanges = prompt.session.camera().conversation.exchanges();
  const std::size_t shown = std::min<std::size_t>(*wanted, exchanges.size());
  for (const Exchange& exchange : std::span(exchanges).last(shown))
    std::printf("%s\n", describe(exchange).c_str());
  return "";
}

Complaint start_service(Prompt& prompt) {
  Session& session = prompt.session;
  if (session.service().running()) return "the service runs already";
  return session.start_service() ? "" : "the service did not come up; see \"service\"";
}

Complaint stop_service(Prompt& prompt, int signal) {
  if (!prompt.session.service().running()) return "the service does not run";
  prompt.session.stop_service(signal);
  return "";
}

Complaint service(Prompt& prompt, Words words) {
  const std::string order = joined(words);
  if (order == "start") return start_service(prompt);
  if (order == "stop") return stop_service(prompt, SIGTERM);
  if (order == "kill") return stop_service(prompt, SIGKILL);
  if (!order.empty()) return "\"service\" can start, stop or kill";
  ServiceProcess& service = prompt.session.service();
  std::printf("%s\nservice %d %s\n", service.last_lines().c_str(), service.pid(),
              service.running() ? "runs" : ("has ended: " + service.how_it_ended()).c_str());
  return "";
}

Choices service_choices(Words) { return std::vector<std::string>{"start", "stop", "kill"}; }

Complaint wait(Prompt& prompt, Words words) {
  const auto seconds = parse_number<double>(words[0], 0, kLongestWait);
  if (!seconds) return '"' + words[0] + "\" is not a number of seconds from 0 to 3600";
  const std::chrono::duration<double> time(*seconds);
  prompt.session.wait(std::chrono::duration_cast<Session::Clock::duration>(time), [] { return false; });
  return "";
}

Complaint quit(Prompt& prompt, Words) {
  prompt.over = true;
  return "";
}

Choices any_file(Words) { return std::nullopt; }

constexpr Command kCommands[] = {
    {"help", "[COMMAND]", "this list, or more about one", 0, 1, help, help_choices},
    {"controls", "", "every control with its limits, as the camera reports them", 0, 0, list_controls,
     nullptr, Needs::kCable},
    {"get", "NAME... | all", "values of controls", 1, kAnyNumber, get_controls, get_choices, Needs::kCable},
    {"set", "NAME VALUE [NAME VALUE]...", "set controls, one after the other", 2, kAnyNumber, set_controls,
     set_choices, Needs::kCable},
    {"xu", "SELECTOR [get|min|max|res|def|len|info|set BYTE...]", "extension unit; bytes in hex", 1,
     kAnyNumber, extension_unit, extension_choices, Needs::kCable},
    {"raw", "TYPE REQUEST VALUE INDEX LENGTH [BYTE...]", "any request: 0xA1 or 161; bytes in hex", 5,
     kAnyNumber, raw_request, nullptr, Needs::kCable},
    {"stream", "[start] FORMAT [WxH] [at RATE] [for SECONDS] [to FILE] | stop",
     "report what comes; \"start\" runs until \"stop\"", 1, kAnyNumber, stream, stream_choices,
     Needs::kOwnHost},
    {"picture", "FILE.png", "save the next picture of the stream, or of one started for it", 1, 1,
     write_picture, any_file, Needs::kOwnHost},
    {"plug", "", "put the USB cable in", 0, 0, plug},
    {"unplug", "", "pull the USB cable", 0, 0, unplug},
    {"fault", "[at TIME] TEXT [for TIME] | clear", "make something go wrong, now or after TIME", 1,
     kAnyNumber, fault, fault_choices},
    {"look", "", "where the camera's head looks, and its settings", 0, 0, look},
    {"server", "", "what the system server received since it was last shown", 0, 0, server},
    {"log", "[LINES]", "the last requests to the camera (10)", 0, 1, log},
    {"service", "[start | stop | kill]", "the service's last lines, and whether it runs", 0, 1, service,
     service_choices},
    {"wait", "SECONDS", "do nothing for a while", 1, 1, wait},
    {"quit", "", "end the service and the camera", 0, 0, quit},
};

}  // namespace

std::span<const Command> commands() { return kCommands; }

const Command* find_command(std::string_view name) {
  const auto found = std::ranges::find(kCommands, name, &Command::name);
  return found == std::end(kCommands) ? nullptr : found;
}

std::string usage(const Command& command) {
  return *command.arguments ? std::string(command.name) + ' ' + command.arguments : command.name;
}

}  // namespace sim
