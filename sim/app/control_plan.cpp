#include "sim/app/control_plan.h"

#include <linux/usb/video.h>

#include <algorithm>
#include <cstdio>
#include <optional>
#include <string_view>
#include <thread>
#include <vector>

#include "sim/app/report.h"
#include "sim/app/table.h"
#include "sim/host/control_steps.h"
#include "sim/host/host_controls.h"

namespace sim {

namespace {

using namespace std::chrono_literals;

constexpr StreamChoice kStream{StreamFormat::kMjpeg, {1280, 720}, 30};
constexpr auto kRestLimit = 10s;  // until the head no longer moves
constexpr auto kTurning = 50ms;   // between the two settings of a step
constexpr u8 kVersionSelector = 9;
constexpr char kBuildVersion[] = "2.1.3 of 2025-06-04, thrice";

constexpr Column kColumns[] = {
    {"step", 13, 15},
    {"VISCA that the server received", 26, 54, CellKind::kList},
    {"expected", 19, 42, CellKind::kList},
    {"measured", 12, 26, CellKind::kList},
    {"judged", 6, 80},
};

std::string joined(const std::vector<std::string>& parts) {
  std::string text;
  for (const std::string& part : parts) text += (text.empty() ? "" : ", ") + part;
  return text.empty() ? "none" : text;
}

// Returns the VISCA frames among the server's lines, without its replies.
std::vector<std::string> visca_frames(const std::vector<std::string>& lines) {
  constexpr std::string_view kViscaMessage = "sys 39 ";
  std::vector<std::string> frames;
  for (const std::string& line : lines) {
    if (!line.starts_with(kViscaMessage)) continue;
    const auto end = std::min(line.find(" ->"), line.size());
    frames.push_back(line.substr(kViscaMessage.size(), end - kViscaMessage.size()));
  }
  return frames;
}

// Returns false if the camera refuses one of them.
bool set_all(Session& session, const ControlStep& step) {
  for (const auto& setting : step.settings) {
    if (!setting.control) break;
    if (&setting != step.settings.begin()) std::this_thread::sleep_for(kTurning);
    const HostControl& control = *find_host_control(setting.control);
    if (!set_control(session.camera().conversation, control, setting.value)) return false;
  }
  return true;
}

StepOutcome take(Session& session, const ControlStep& step) {
  Camera& camera = session.camera();
  const auto before = camera.host.picture(session.picture_path(step.name + std::string(" before")));
  if (!before) return {.error = "no picture before"};
  const std::size_t from = received(camera.parties).size();
  if (!set_all(session, step)) return {.error = "refused by the camera"};
  StepOutcome outcome{.frames = visca_frames(received(camera.parties, from))};
  if (!session.wait(kRestLimit, [&] { return !camera.parties.head.moving(); }))
    outcome.error = "still moving";
  const auto after = camera.host.picture(session.picture_path(step.name + std::string(" after")));
  if (!after) outcome.error = "no picture after";
  if (outcome.error.empty()) outcome.values = step.measure->of(*before, *after);
  return outcome;
}

// Returns version and date, if all three groups of the record agree.
std::string version_text(const std::vector<u8>& record) {
  constexpr std::size_t kGroup = 7;
  if (record.size() != 1 + 3 * kGroup || record[0] != 1) return "no version record";
  const auto groups = record.begin() + 1;
  if (!std::equal(groups, record.end() - kGroup, groups + kGroup)) return "groups differ";
  char text[64];
  std::snprintf(text, sizeof(text), "%d.%d.%d of %04d-%02d-%02d, thrice", groups[0], groups[1], groups[2],
                groups[3] << 8 | groups[4], groups[5], groups[6]);
  return text;
}

void check_version(Session& session) {
  Conversation& host = session.camera().conversation;
  const auto length = get_control(host, kExtensionUnit, kVersionSelector, UVC_GET_LEN, 2).data;
  const u16 size = length.size() == 2 ? get_le16(length.data()) : u16{0};
  const auto answer = get_control(host, kExtensionUnit, kVersionSelector, UVC_GET_CUR, size);
  const std::string version = version_text(answer.data);
  const bool right = version == kBuildVersion;
  print_table_row(kColumns,
                  {"version record", "none", kBuildVersion, version, right ? "right" : "another version"});
  session.keep({.group = "controls", .name = "version record", .good = right, .verdict = version});
}

}  // namespace

void control_plan(Session& session) {
  UsbHost& host = session.camera().host;
  if (!session.going_on()) return;
  if (!host.start(kStream))
    return session.complain("cannot start the stream to drive the camera: " + host.error());
  print_table_titles(kColumns);
  for (const ControlStep& step : control_steps()) {
    if (!session.going_on()) break;
    const StepOutcome outcome = take(session, step);
    const std::string found = verdict(step, outcome);
    print_table_row(kColumns, {step.name, joined(outcome.frames), expected_text(step),
                               measured_text(step, outcome), found});
    session.keep({.group = "controls", .name = step.name, .good = found == "right", .verdict = found});
  }
  if (session.going_on()) check_version(session);
  if (!session.service().running()) host.unplug();  // as the driver does then
  const StreamReport stream = host.stop(session.picture_path("controls")).report;
  if (!stream.whole()) session.complain("the stream during the steps: " + defects(stream));
}

}  // namespace sim
