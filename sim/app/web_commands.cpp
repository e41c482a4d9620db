#include "sim/app/web_commands.h"

#include <linux/usb/video.h>

#include <algorithm>

#include "sim/app/control_access.h"
#include "sim/app/fault_script.h"
#include "sim/app/options.h"
#include "sim/host/extension_unit.h"

namespace sim {

namespace {

constexpr u8 kLimits[] = {UVC_GET_MIN, UVC_GET_MAX, UVC_GET_RES, UVC_GET_DEF};
constexpr const char* kLimitNames[] = {"min", "max", "res", "def"};

WebAnswer reply(Json json) { return {.status = 200, .json = std::move(json), .file = {}, .type = {}}; }

// 409: the request is right, but the camera or its state refuses.
WebAnswer outcome(const Complaint& complaint) {
  return complaint.empty() ? WebAnswer{} : web_error(409, complaint);
}

WebAnswer unknown(const std::string& what, const std::string& name) {
  return web_error(404, "no such " + what + ": \"" + name + '"');
}

Json or_null(std::optional<i32> value) { return value ? Json(*value) : Json(nullptr); }

Conversation& conversation(Web& web) { return web.camera().conversation; }

// Carries out a command of the prompt.
WebAnswer at_prompt(Web& web, const char* name, const std::string& line) {
  const std::vector<std::string> words = words_of(line);
  return outcome(find_command(name)->run(web.prompt, words));
}

// What the camera tells of itself.

// The answer to GET_LEN or GET_INFO.
Json attribute(Conversation& host, const HostControl& control, u8 request) {
  const auto data =
      get_control(host, control.entity, control.selector, request, request == UVC_GET_LEN ? 2 : 1).data;
  if (data.empty()) return nullptr;
  return data.size() == 1 ? Json(data[0]) : Json(get_le16(data.data()));
}

Json control_now(Conversation& host, const HostControl& control) {
  Json json{{"name", control.name},
            {"unit", control.entity == kCameraTerminal ? "camera terminal" : "processing unit"},
            {"selector", control.selector},
            {"motion", control.value == HostValue::kMotion},
            {"len", attribute(host, control, UVC_GET_LEN)},
            {"info", attribute(host, control, UVC_GET_INFO)}};
  for (std::size_t i = 0; i < std::size(kLimits); ++i)
    json[kLimitNames[i]] = or_null(get_limit(host, control, kLimits[i]));
  json["value"] = or_null(get_control(host, control, UVC_GET_CUR));
  return json;
}

WebAnswer controls(Web& web, const Json&) {
  Json list = Json::array();
  for (const HostControl& control : host_controls()) list.push_back(control_now(conversation(web), control));
  return reply({{"controls", list}});
}

WebAnswer get(Web& web, const Json& arguments) {
  const std::string name = arguments["name"];
  const HostControl* const control = find_host_control(name);
  if (!control) return unknown("control", name);
  const auto value = get_control(conversation(web), *control, UVC_GET_CUR);
  return value ? reply({{"name", name}, {"value", *value}}) : outcome("the camera does not answer");
}

WebAnswer set(Web& web, const Json& arguments) {
  const std::string name = arguments["name"];
  const HostControl* const control = find_host_control(name);
  if (!control) return unknown("control", name);
  const Range range = range_of(*control);
  const Json& number = arguments["value"];
  if (!(number >= range.least && number <= range.most) || !number.is_number_integer())
    return web_error(400, "\"value\" is not a whole number that fits the control");
  const i32 value = number;
  const bool sent = set_control(conversation(web), *control, value);
  const Reading reading = read_back(conversation(web), *control, value);
  WebAnswer result = outcome(sent ? reading.complaint : "the camera refuses it");
  result.json["name"] = name;
  result.json["value"] = or_null(reading.value);
  return result;
}

WebAnswer selectors(Web&, const Json&) {
  Json list = Json::array();
  for (const ExtensionSelector& row : extension_selectors()) {
    Json fields = Json::array();
    for (const ExtensionField& field : row.fields) {
      fields.push_back({{"name", field.name},
                        {"offset", field.offset},
                        {"size", field.size},
                        {"high_byte_first", field.high_byte_first},
                        {"most", field.most}});
    }
    list.push_back({{"selector", row.selector},
                    {"name", row.name},
                    {"meaning", row.meaning},
                    {"caution", row.caution},
                    {"read_only", row.read_only},
                    {"length", row.length},
                    {"fields", fields}});
  }
  return reply({{"selectors", list}});
}

struct NamedRequest {
  const char* name;
  u8 request;
};
constexpr NamedRequest kRequests[] = {{"get", UVC_GET_CUR},   {"min", UVC_GET_MIN}, {"max", UVC_GET_MAX},
                                      {"res", UVC_GET_RES},   {"def", UVC_GET_DEF}, {"len", UVC_GET_LEN},
                                      {"info", UVC_GET_INFO}, {"set", UVC_SET_CUR}};

WebAnswer extension(Web& web, const Json& arguments) {
  if (arguments["selector"] < 0 || arguments["selector"] > 255)
    return web_error(400, "\"selector\" is not a number from 0 to 255");
  const u8 selector = arguments["selector"];
  const auto row = std::ranges::find(kRequests, arguments["request"].get<std::string>(),
                                     [](const NamedRequest& each) { return std::string(each.name); });
  if (row == std::end(kRequests)) return unknown("request", arguments["request"]);
  Conversation& host = conversation(web);
  ControlAnswer came;
  if (row->request == UVC_SET_CUR) {
    const std::vector<u8> bytes = arguments.value("bytes", Json::array());
    if (bytes.empty()) return web_error(400, "\"bytes\" is missing");
    came = set_control(host, kExtensionUnit, selector, bytes);
  } else {
    const u16 length = answer_length(host, kExtensionUnit, selector, row->request);
    if (length == 0) return outcome("GET_LEN is not answered");
    came = get_control(host, kExtensionUnit, selector, row->request, length);
  }
  if (came.stalled) return outcome("the camera refuses it");
  return reply({{"bytes", came.data}});
}

WebAnswer formats(Web& web, const Json&) {
  Json list = Json::array();
  for (const HostFormat& format : host_formats()) {
    Json sizes = Json::array();
    for (const FrameSize& size : format.sizes)
      sizes.push_back({{"width", size.width}, {"height", size.height}});
    list.push_back({{"format", format.name}, {"sizes", sizes}});
  }
  return reply({{"formats", list}, {"rate", web.session().options().rate}});
}

// Streams.

WebAnswer stream(Web& web, const Json& arguments) {
  const std::string format = arguments["format"], size = arguments.value("size", "");
  if (!parse_format(format)) return unknown("format", format);
  if (!size.empty() && !parse_size(size)) return web_error(400, "\"size\" is not a size such as 1280x720");
  std::string order = format + ' ' + size;
  if (arguments.contains("rate")) order += " at " + text_of(arguments["rate"]);
  StreamChoice choice{};
  if (const Complaint complaint = parse_choice(web.prompt, words_of(order), choice); !complaint.empty())
    return web_error(400, complaint);
  if (web.prompt.stream) stop_stream(web.prompt);
  web.wanted = choice;
  return at_prompt(web, "stream", "start " + order);
}

WebAnswer stop(Web& web, const Json&) {
  if (!web.wanted && !web.prompt.stream) return outcome("no stream is running");
  web.wanted.reset();
  web.trouble.clear();
  if (web.prompt.stream) stop_stream(web.prompt);
  return {};
}

WebAnswer picture(Web& web, const Json&) {
  const std::string path = web.session().picture_path("page");
  if (!web.prompt.stream) return outcome("no stream is running");
  if (!web.camera().host.picture(path)) return outcome("no picture came");
  return {.status = 200, .json = {}, .file = path, .type = "image/png"};
}

WebAnswer record(Web& web, const Json&) {
  if (web.recording.status().running) return outcome("a recording is running already");
  web.recording.start();
  return {};
}

WebAnswer stop_record(Web& web, const Json&) {
  if (!web.recording.status().running) return outcome("no recording is running");
  return web.recording.stop() ? WebAnswer{} : outcome("nothing was recorded: no frame came to begin with");
}

WebAnswer recording(Web& web, const Json&) {
  const Recording::Status status = web.recording.status();
  if (status.running) return outcome("the recording is still running");
  if (status.frames == 0) return outcome("nothing was recorded");
  return {.status = 200, .json = {}, .file = status.file, .type = "application/octet-stream"};
}

// Cable, service and faults.

WebAnswer plug(Web& web, const Json&) { return at_prompt(web, "plug", ""); }
WebAnswer unplug(Web& web, const Json&) { return at_prompt(web, "unplug", ""); }

WebAnswer service(Web& web, const Json& arguments) {
  const std::string order = arguments["order"];
  if (order != "start" && order != "stop" && order != "kill")
    return web_error(400, "\"order\" is not start, stop or kill");
  return at_prompt(web, "service", order);
}

WebAnswer faults(Web&, const Json&) {
  Json list = Json::array();
  for (const FaultShape& shape : fault_shapes())
    list.push_back({{"shape", shape.shown}, {"meaning", shape.meaning}});
  return reply({{"faults", list}});
}

WebAnswer fault(Web& web, const Json& arguments) {
  const std::string text = arguments["text"];
  std::string error;
  const auto parsed = parse_fault(text, error);
  if (!parsed) return web_error(400, error);
  WebAnswer result = at_prompt(web, "fault", text);
  if (result.status != 200) return result;
  Web::SetFault& kept = web.faults.emplace_back(text);
  if (parsed->duration) {
    const std::chrono::duration<double> until(parsed->at + *parsed->duration);
    kept.end = Session::Clock::now() + std::chrono::duration_cast<Session::Clock::duration>(until);
  }
  return result;
}

WebAnswer clear_faults(Web& web, const Json&) {
  web.faults.clear();
  return at_prompt(web, "fault", "clear");
}

// Records.

std::size_t first_in(const Json& arguments) {
  return static_cast<std::size_t>(std::max(arguments.value("from", 0.0), 0.0));
}

WebAnswer conversation_log(Web& web, const Json& arguments) {
  return reply({{"conversation", conversation_since(web.camera(), first_in(arguments), ~std::size_t{0})}});
}

WebAnswer service_log(Web& web, const Json& arguments) {
  const std::string level = arguments.value("level", "V");
  if (level.size() != 1 || std::string_view("AEWIDV").find(level) == std::string_view::npos)
    return web_error(400, "\"level\" is not one of A E W I D V");
  return reply({{"log", log_since(web.camera(), first_in(arguments), level[0])}});
}

WebAnswer server_log(Web& web, const Json& arguments) {
  return reply({{"server", server_since(web.camera(), first_in(arguments))}});
}

WebAnswer state(Web& web, const Json&) { return reply(web.state.state()); }

WebAnswer help(Web&, const Json&) {
  Json list = Json::array();
  for (const WebRow& row : web_rows()) {
    Json arguments = Json::array();
    for (const WebArgument& argument : row.arguments)
      arguments.push_back({{"name", argument.name}, {"optional", argument.optional}});
    list.push_back({{"command", row.name}, {"arguments", arguments}, {"changes", row.changes}});
  }
  return reply({{"commands", list}});
}

using enum WebArgument::Kind;

const WebRow kRows[] = {
    {"help", {}, help, false},
    {"state", {}, state, false},
    {"formats", {}, formats, false},
    {"controls", {}, controls, false, true},
    {"selectors", {}, selectors, false},
    {"faults", {}, faults, false},
    {"picture", {}, picture, false, true},
    {"recording", {}, recording, false},
    {"conversation", {{kNumber, "from", true}}, conversation_log, false},
    {"log", {{kNumber, "from", true}, {kText, "level", true}}, service_log, false},
    {"server", {{kNumber, "from", true}}, server_log, false},
    {"get", {{kText, "name"}}, get, true, true},
    {"set", {{kText, "name"}, {kNumber, "value"}}, set, true, true},
    {"extension",
     {{kNumber, "selector"}, {kText, "request"}, {kBytes, "bytes", true}},
     extension,
     true,
     true},
    {kMoveCommand, {{kNumber, "pan", true}, {kNumber, "tilt", true}, {kNumber, "zoom", true}}, nullptr},
    {"stream", {{kText, "format"}, {kText, "size", true}, {kNumber, "rate", true}}, stream, true, true},
    {"stop", {}, stop},
    {"record", {}, record},
    {"record-stop", {}, stop_record},
    {"plug", {}, plug},
    {"unplug", {}, unplug},
    {"service", {{kText, "order"}}, service},
    {"fault", {{kText, "text"}}, fault},
    {"fault-clear", {}, clear_faults},
};

bool is_byte(const Json& value) { return value.is_number_unsigned() && value <= 255; }

bool fits(const WebArgument& argument, const Json& value) {
  switch (argument.kind) {
    case kText:
      return value.is_string();
    case kNumber:
      return value.is_number();
    case kBytes:
      return value.is_array() && value.size() <= kLongestData && std::ranges::all_of(value, is_byte);
  }
  return false;
}

const WebRow* find_row(const std::string& name) {
  const auto found = std::ranges::find(kRows, name, [](const WebRow& row) { return std::string(row.name); });
  return found == std::end(kRows) ? nullptr : found;
}

}  // namespace

std::span<const WebRow> web_rows() { return kRows; }

WebAnswer check(const WebCommand& command) {
  const WebRow* const row = find_row(command.name);
  if (!row) return unknown("command", command.name);
  if (command.get && row->changes) return web_error(405, "this command needs POST");
  for (const auto& [name, value] : command.arguments.items()) {
    const auto argument = std::ranges::find(row->arguments, name,
                                            [](const WebArgument& each) { return std::string(each.name); });
    if (argument == row->arguments.end())
      return web_error(400, "\"" + name + "\" is not an argument of this command");
    if (!fits(*argument, value)) return web_error(400, "\"" + name + "\" is of the wrong kind");
  }
  for (const WebArgument& argument : row->arguments) {
    if (!argument.optional && !command.arguments.contains(argument.name))
      return web_error(400, "\"" + std::string(argument.name) + "\" is missing");
  }
  return {};
}

WebAnswer carry_out(Web& web, const WebCommand& command) {
  const WebRow& row = *find_row(command.name);
  if (row.needs_camera && !web.session().service().running()) return outcome("the service does not run");
  if (row.needs_camera && !web.camera().host.plugged()) return outcome(kUnplugged);
  return row.run(web, command.arguments);
}

HeadMotion::Speeds speeds_in(const Json& arguments) {
  const auto speed = [&](const char* name) {
    return static_cast<i32>(std::clamp(arguments.value(name, 0.0), -255.0, 255.0));
  };
  return {speed("pan"), speed("tilt"), speed("zoom")};
}

void look_after_stream(Web& web) {
  UsbHost& host = web.camera().host;
  auto& running = web.prompt.stream;
  const bool service_runs = web.session().service().running();
  if (running && (running->unplugs != host.unplugs() || !service_runs)) stop_stream(web.prompt);
  if (!web.wanted || running || !service_runs || !host.plugged()) return;
  const StreamChoice wanted = *web.wanted;
  if (!host.enumerate()) {
    web.trouble = host.error();
    return;
  }
  web.trouble = at_prompt(web, "stream", "start " + name_of(wanted) + " at " + std::to_string(wanted.rate))
                    .json.value("error", "");
}

}  // namespace sim
