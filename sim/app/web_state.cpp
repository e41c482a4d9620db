#include "sim/app/web_state.h"

#include <unistd.h>

#include <algorithm>
#include <utility>

namespace sim {

namespace {

constexpr std::size_t kMostNews = 300;  // of each record in one message
constexpr std::string_view kLevels = "AEWIDV";

// Where a page goes on that has fallen behind; adds what it misses.
std::size_t go_on(std::size_t seen, std::size_t end, Json& missed, const char* record) {
  const std::size_t from = end - std::min(end - std::min(seen, end), kMostNews);
  if (seen && from > seen) missed[record] = from - seen;
  return from;
}

Json head_now(const CameraHead& head) {
  const CameraView view = head.view();
  return {{"pan", view.pan}, {"tilt", view.tilt}, {"zoom", view.zoom}, {"moving", head.moving()}};
}

Json recording_now(const Recording& recording) {
  const Recording::Status status = recording.status();
  return {{"running", status.running}, {"file", status.file.substr(status.file.rfind('/') + 1)},
          {"bytes", status.bytes},     {"frames", status.frames},
          {"seconds", status.seconds}, {"ended", status.ended}};
}

}  // namespace

Json json_of(const StreamChoice& choice) {
  return {{"format", host_format(choice.format).name},
          {"width", choice.size.width},
          {"height", choice.size.height},
          {"rate", choice.rate}};
}

Json conversation_since(Camera& camera, std::size_t from, std::size_t to) {
  Json list = Json::array();
  for (std::size_t number = from; const Exchange& each : camera.conversation.exchanges(from)) {
    if (number == to) break;
    list.push_back({{"number", number++},
                    {"seconds", each.at_ms / 1000},
                    {"request", request_text(each)},
                    {"status", outcome_name(each)},
                    {"ms", each.answer_ms},
                    {"data", data_text(each.data)},
                    {"server", each.server}});
  }
  return list;
}

Json log_since(const Camera& camera, unsigned long from, char level) {
  Json list = Json::array();
  if (!camera.parties.collector) return list;
  for (const Collector::Line& line : camera.parties.collector->lines(from)) {
    if (kLevels.find(line.level) > kLevels.find(level)) continue;
    list.push_back({{"number", line.number},
                    {"level", std::string(1, line.level)},
                    {"text", line.text.substr(0, line.text.find_last_not_of("\r\n") + 1)}});
  }
  return list;
}

Json server_since(const Camera& camera, std::size_t from) {
  Json list = Json::array();
  for (const std::string& line : received(camera.parties, from))
    list.push_back({{"number", from++}, {"text", line}});
  return list;
}

void WebState::set(WebStatus status) {
  const std::lock_guard guard(lock_);
  status_ = std::move(status);
}

Json WebState::state() const {
  const std::lock_guard guard(lock_);
  return state_;
}

Json WebState::stream_now(const WebStatus& status) const {
  const std::optional<StreamChoice>& choice = status.stream ? status.stream : status.wanted;
  if (!choice) return nullptr;
  const StreamResult result = camera_.host.progress();
  const StreamReport& report = result.report;
  Json stream = json_of(*choice);
  stream.update({{"running", status.stream.has_value()},
                 {"trouble", status.trouble},
                 {"seconds", result.seconds},
                 {"first_picture_ms", result.first_picture_ms},
                 {"payloads", result.payloads},
                 {"frames", report.frames},
                 {"bytes", report.bytes},
                 {"latency_ms", report.latency_ms},
                 {"latency_max_ms", report.latency_max_ms},
                 {"lost", report.lost},
                 {"torn", report.torn},
                 {"repeated", report.repeated},
                 {"stale", report.stale},
                 {"empty", report.empty}});
  return stream;
}

void WebState::look() {
  WebStatus status;
  {
    const std::lock_guard guard(lock_);
    status = status_;
  }
  service_load_.look(status.service);
  own_load_.look(getpid());
  Json state = {{"service",
                 {{"pid", status.service},
                  {"running", status.service && service_load_.running()},
                  {"ended", status.service_ended},
                  {"cpu_percent", service_load_.percent()},
                  {"memory_kb", service_load_.kilobytes()}}},
                {"simulator", {{"cpu_percent", own_load_.percent()}, {"memory_kb", own_load_.kilobytes()}}},
                {"plugged", camera_.host.plugged()},
                {"stream", stream_now(status)},
                {"head", head_now(camera_.parties.head)},
                {"faults", status.faults},
                {"recording", recording_now(recording_)}};
  {
    const std::lock_guard guard(lock_);
    state_ = std::move(state);
  }
  settled_ = std::exchange(exchanges_, exchanges_ + camera_.conversation.exchanges(exchanges_).size());
}

Json WebState::news(Seen& seen) {
  Json missed = Json::object();
  const std::size_t lines = received(camera_.parties, seen.server).size();
  const unsigned long logged = camera_.parties.collector ? camera_.parties.collector->counts().lines : 0;
  const std::size_t exchange = go_on(seen.exchanges, settled_, missed, "conversation");
  const std::size_t line = go_on(seen.server, seen.server + lines, missed, "server");
  const unsigned long log = go_on(seen.log, logged, missed, "log");
  Json message = {{"state", state()},
                  {"missed", missed},
                  {"conversation", conversation_since(camera_, exchange, settled_)},
                  {"server", server_since(camera_, line)},
                  {"log", log_since(camera_, log, kLevels.back())}};
  seen.exchanges = settled_;
  seen.server = line + message["server"].size();
  const Json& log_lines = message["log"];
  seen.log = log_lines.empty() ? log : log_lines.back()["number"].get<unsigned long>() + 1;
  return message;
}

}  // namespace sim
