#include "sim/app/options.h"

#include <getopt.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <iterator>

#include "sim/app/table.h"
#include "sim/app/text.h"
#include "sim/host/usb_host.h"
#include "sim/media/source.h"

namespace sim {

namespace {

Complaint set_format(Options& options, std::string_view text) {
  options.format = parse_format(text);
  if (options.format) return "";
  std::string known;
  for (const HostFormat& format : host_formats()) known += ' ' + lower(format.name);
  return "not one of" + known;
}

Complaint set_size(Options& options, std::string_view text) {
  options.size = parse_size(text);
  return options.size ? "" : "not a size such as 1280x720";
}

Complaint set_rate(Options& options, std::string_view text) {
  const auto rate = parse_rate(text);
  options.rate = rate.value_or(0);
  return rate ? "" : "not a rate from 1 to 60";
}

Complaint set_duration(Options& options, std::string_view text) {
  const auto seconds = parse_number<double>(text, 0.5, 3600);
  options.duration = seconds.value_or(0);
  return seconds ? "" : "not a number of seconds from 0.5 to 3600";
}

Complaint set_source(Options& options, std::string_view text) {
  options.source = text;
  if (access(options.source.c_str(), R_OK) != 0) return std::strerror(errno);
  return Source::open(options.source) ? "" : "not a picture or video that can be read";
}

Complaint add_fault(Options& options, std::string_view text) {
  std::string error;
  const auto fault = parse_fault(text, error);
  if (fault) options.faults.push_back(*fault);
  return fault ? ""
               : error + "; the forms are (before or behind each: at TIME, for TIME):\n" + fault_forms("  ");
}

Complaint set_print_level(Options& options, std::string_view text) {
  constexpr std::string_view kLevels[] = {"debug", "info", "warn", "error", "verbose"};
  options.print_level = text;
  return std::ranges::find(kLevels, text) != std::end(kLevels) ? ""
                                                               : "not one of debug info warn error verbose";
}

Complaint set_log_level(Options& options, std::string_view text) {
  constexpr std::string_view kLevels[] = {"assert", "error", "warn", "info", "debug", "verbose"};
  const auto found = std::ranges::find(kLevels, text);
  options.log_level = static_cast<u8>(found - kLevels);
  return found != std::end(kLevels) ? "" : "not one of assert error warn info debug verbose";
}

Complaint leave_out(Options& options, std::string_view text) {
  const auto found = std::ranges::find(kParties, text, &PartyName::name);
  if (found == std::end(kParties)) return "not one of encoder server collector";
  options.cast.*found->member = false;
  return "";
}

Complaint set_port(Options& options, std::string_view text) {
  const auto port = parse_number<u16>(text, 1, 65535);
  options.port = port.value_or(0);
  return port ? "" : "not a port from 1 to 65535";
}

Complaint set_extra_stride(Options& options, std::string_view text) {
  const auto bytes = parse_number<u32>(text, 0, 4096);
  options.extra_stride = bytes.value_or(0);
  return bytes ? "" : "not a number of bytes from 0 to 4096";
}

Complaint set_listen(Options& options, std::string_view address) {
  options.attach = true;
  options.listen = address.empty() ? "127.0.0.1" : address;
  return "";
}

struct OptionRow {
  const char* name;
  const char* argument;  //< null: takes none; in brackets if it may be left out
  const char* help;
  Complaint (*set)(Options&, std::string_view);
};
constexpr OptionRow kRows[] = {
    {"format", "NAME", "stream only this format: mjpeg, h264, h265 or yuy2", set_format},
    {"size", "WxH", "stream only this size", set_size},
    {"rate", "N", "frames per second (30)", set_rate},
    {"duration", "S", "seconds for each stream (4)", set_duration},
    {"source", "FILE", "a video or picture for the scene instead of the test card", set_source},
    {"yuv422", nullptr, "VPSS pictures in 4:2:2 instead of 4:2:0",
     [](Options& options, std::string_view) { return options.yuv422 = true, Complaint(); }},
    {"extra-stride", "N", "bytes by which their rows are longer than the picture", set_extra_stride},
    {"paced", nullptr, "frames take as long as on a high-speed bus",
     [](Options& options, std::string_view) { return options.paced = true, Complaint(); }},
    {"fault", "TEXT", "something goes wrong (see below); may be given several times", add_fault},
    {"without", "PARTY", "leave out encoder, server or collector: a process of your own takes its place",
     leave_out},
    {"to", "FILE",
     "the received stream as it is (one format); -: standard output, whose text goes to standard error",
     [](Options& options, std::string_view text) { return options.to = text, Complaint(); }},
    {"attach", nullptr, "be a USB camera of this PC for all its programs, until Ctrl-C or \"quit\" (root)",
     [](Options& options, std::string_view) { return options.attach = true, Complaint(); }},
    {"listen", "[ADDRESS]", "the same for another PC, which connects by USB/IP (127.0.0.1)", set_listen},
    {"lent-encoder", "FILE", "memory of an encoder_lender on a faster machine",
     [](Options& options, std::string_view text) { return options.lent_encoder = text, Complaint(); }},
    {"replay", "FILE", "repeat the class requests of a capture and compare the answers",
     [](Options& options, std::string_view text) { return options.replay = text, Complaint(); }},
    {"results", "FILE", "what was found, as JSON, or if it ends in .xml, as JUnit; may be given twice",
     [](Options& options, std::string_view text) { return options.results.emplace_back(text), Complaint(); }},
    {"print-level", "LEVEL", "the service's print level: debug, info, warn, error, verbose", set_print_level},
    {"log", "LEVEL", "print what the log collector gets, up to this level", set_log_level},
    {"out", "DIR", "folder for received pictures and the logs (out); one run at a time uses it",
     [](Options& options, std::string_view text) { return options.out = text, Complaint(); }},
    {"service", "PATH", "the service program (uvc_gadget_sim beside this program)",
     [](Options& options, std::string_view text) { return options.service = text, Complaint(); }},
    {"wait-in-kernel", nullptr, "start the service so that it sleeps until there is something to do",
     [](Options& options, std::string_view) { return options.wait_in_kernel = true, Complaint(); }},
    {"verbose", nullptr, "show the service's own output as well",
     [](Options& options, std::string_view) { return options.verbose = true, Complaint(); }},
    {"stay", nullptr, "stream one format until Ctrl-C, for a debugger",
     [](Options& options, std::string_view) { return options.stay = true, Complaint(); }},
    {"control", nullptr, "drive the camera: without streams before it, or after the one that was chosen",
     [](Options& options, std::string_view) { return options.control = true, Complaint(); }},
    {"prompt", nullptr, "take commands from the terminal or a script instead (\"help\" there lists them)",
     [](Options& options, std::string_view) { return options.prompt = true, Complaint(); }},
    {"web", nullptr, "show the camera in a browser on this PC, which drives it (docs/web.md)",
     [](Options& options, std::string_view) { return options.web = true, Complaint(); }},
    {"port", "N", "of the page (a free one from 8080 on)", set_port},
    {"list", nullptr, "show formats and sizes, and end", nullptr},
    {"help", nullptr, "show this, and end", nullptr},
};

void print_help() {
  std::puts(
      "Usage: camera_sim [OPTION]...\n"
      "Runs the camera service against a simulated camera and USB host, and says\n"
      "whether the pictures arrive. Without --format or --size it streams six formats\n"
      "and sizes and unplugs the cable once; then it drives the camera and measures in\n"
      "the pictures whether it obeys.\n");
  constexpr Column kColumns[] = {{"option", 23, 23}, {"what it does", 56, 80}};
  for (const OptionRow& row : kRows) {
    const std::string argument = row.argument ? std::string(" ") + row.argument : "";
    print_table_row(kColumns, {"  --" + std::string(row.name) + argument, row.help});
  }
  std::printf(
      "\nFaults, each with \"at TIME\" (after the service's start; without: before it) and\n"
      "\"for TIME\" (without: to the end):\n%s"
      "\nExamples:\n"
      "  camera_sim\n"
      "  camera_sim --format h264 --size 1920x1080 --rate 25 --duration 10\n"
      "  camera_sim --format yuy2 --size 640x480 --paced --yuv422 --extra-stride 3\n"
      "  camera_sim --fault \"at 2s unplug for 0.5s\" --fault \"server slow\"\n"
      "  camera_sim --stay --print-level debug --verbose\n"
      "  echo \"set brightness 12\" | camera_sim --prompt\n"
      "\nExit status: 0 when every stream was whole and at 90 %% of its rate or more, each\n"
      "unplugged stream came back, the camera obeyed in every step, and the service\n"
      "ended with 0 within 1 s of SIGTERM; 1 when not; 2 for a wrong option, or for a\n"
      "folder that cannot be made or is in use.\n",
      fault_forms("  ").c_str());
}

void print_list() {
  for (const HostFormat& format : host_formats()) {
    std::printf("%-6s", format.name);
    for (const FrameSize& size : format.sizes) std::printf(" %ux%u", size.width, size.height);
    std::puts("");
  }
}

Complaint check_size(const Options& options) {
  if (!options.size) return "";
  const HostFormat& format = host_format(options.format.value_or(StreamFormat::kMjpeg));
  if (std::ranges::find(format.sizes, *options.size) != format.sizes.end()) return "";
  return std::string("camera_sim: ") + format.name + " has no such size; see camera_sim --list";
}

// Returns what options ask for that does not go together.
Complaint check_together(const Options& options) {
  for (const Fault& fault : options.faults) {
    if (const Complaint why = options.cannot_play(fault); !why.empty())
      return "camera_sim: --fault \"" + fault.text + "\": " + why;
  }
  if (options.control && !(options.cast.encoder && options.cast.server))
    return "camera_sim: --control needs the simulator's own encoder and server";
  if (options.attach &&
      (options.one_stream() || options.control || options.prompt || !options.replay.empty()))
    return "camera_sim: --attach leaves it to the host what is done, and has the prompt beside it";
  if (options.web &&
      (options.control || options.prompt || options.attach || !options.replay.empty() || !options.to.empty()))
    return "camera_sim: --web leaves it to the page what is done";
  if (!options.to.empty() && options.to != "-" && options.prompt)
    return "camera_sim: at the prompt, \"stream FORMAT to FILE\" takes the place of --to FILE";
  return check_size(options);
}

// What getopt_long wants to know of the rows; a row's value is its index.
std::vector<option> long_options() {
  std::vector<option> options;
  for (int i = 0; const OptionRow& row : kRows) {
    const int wants = !row.argument          ? no_argument
                      : *row.argument == '[' ? optional_argument
                                             : required_argument;
    options.push_back({row.name, wants, nullptr, i++});
  }
  options.push_back({});
  return options;
}

}  // namespace

Complaint Options::cannot_play(const Fault& fault) const {
  if (const char* party = missing_party(cast, fault)) return std::string("the ") + party + " is left out";
  const auto* host = std::get_if<HostFault>(&fault.kind);
  return attach && host && *host == HostFault::kRests ? "the host is not the simulator's" : "";
}

std::optional<StreamFormat> parse_format(std::string_view text) {
  for (const HostFormat& format : host_formats()) {
    if (lower(format.name) == lower(text)) return format.format;
  }
  return std::nullopt;
}

std::optional<u32> parse_rate(std::string_view text) { return parse_number<u32>(text, 1, 60); }

std::optional<FrameSize> parse_size(std::string_view text) {
  const auto cross = std::min(text.find('x'), text.size());
  const auto width = parse_number<u16>(text.substr(0, cross), 1, 8192);
  const auto height = parse_number<u16>(text.substr(std::min(cross + 1, text.size())), 1, 8192);
  if (!width || !height) return std::nullopt;
  return FrameSize{*width, *height};
}

std::optional<Options> parse_options(int argc, char** argv, int& exit_status) {
  Options options;
  exit_status = 2;
  const auto known = long_options();
  for (int index; (index = getopt_long(argc, argv, "", known.data(), nullptr)) != -1;) {
    if (index == '?') return std::nullopt;  // getopt_long has said why
    const OptionRow& row = kRows[index];
    if (!row.set) {
      row.name == std::string_view("help") ? print_help() : print_list();
      exit_status = 0;
      return std::nullopt;
    }
    // getopt_long takes an argument that may be left out only behind "=".
    if (row.argument && !optarg && optind < argc && *argv[optind] != '-') optarg = argv[optind++];
    const Complaint complaint = row.set(options, optarg ? optarg : "");
    if (complaint.empty()) continue;
    std::fprintf(stderr, "camera_sim: --%s \"%s\": %s\n", row.name, optarg, complaint.c_str());
    return std::nullopt;
  }
  const Complaint complaint =
      optind < argc ? std::string("camera_sim: what is \"") + argv[optind] + "\"?" : check_together(options);
  if (complaint.empty()) return options;
  std::fprintf(stderr, "%s\n", complaint.c_str());
  return std::nullopt;
}

}  // namespace sim
