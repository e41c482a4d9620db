#include "sim/app/storm_controls.h"

#include <linux/usb/video.h>

#include <algorithm>
#include <cstdio>
#include <iterator>
#include <utility>

#include "sim/host/host_controls.h"
#include "visca/visca_frame.h"

namespace sim {

namespace {

using namespace std::chrono_literals;
using Clock = std::chrono::steady_clock;

constexpr u16 kValues = 3;  //< of each image control

double seconds_since(Clock::time_point begin) {
  return std::chrono::duration<double>(Clock::now() - begin).count();
}

}  // namespace

// An image control, and the least of its values.
struct StormControls::Image {
  u8 selector, command;
  u16 least;
  const char* name;
  std::size_t index() const { return static_cast<std::size_t>(this - kImages); }
};
const StormControls::Image StormControls::kImages[] = {
    {UVC_PU_BRIGHTNESS_CONTROL, kViscaBrightness, 1, "brightness"},
    {UVC_PU_CONTRAST_CONTROL, kViscaContrast, 4, "contrast"},
    {UVC_PU_SATURATION_CONTROL, kViscaSaturation, 7, "saturation"},
    {UVC_PU_SHARPNESS_CONTROL, kViscaSharpness, 10, "sharpness"},
};

StormControls::StormControls(Camera& camera, const Metronome& metronome, StormTally& tally, StormLog& log,
                             u32 seed)
    : camera_(camera), metronome_(metronome), tally_(tally), log_(log), random_(seed) {
  std::ranges::transform(kImages, last_, &Image::least);
  heard_ = camera.parties.server->received().size();
  refused_ = camera.parties.server->refused();
  thread_ = std::thread([this] { run(); });
}

StormControls::~StormControls() {
  ending_ = true;
  go_on();
  thread_.join();
}

void StormControls::pause() {
  if (!paused_.owns_lock()) paused_.lock();
}

void StormControls::go_on() {
  if (paused_.owns_lock()) paused_.unlock();
}

void StormControls::run() {
  while (!ending_) {
    std::this_thread::sleep_for(std::chrono::milliseconds(1 + random_() % 30));
    const std::lock_guard turn(turn_);
    if (!ending_ && camera_.host.plugged()) any_request();
  }
}

// Another value than the last, for a step of less than kValues.
u16 StormControls::next_value(const Image& image, u32 step) const {
  return static_cast<u16>(image.least + (last_[image.index()] - image.least + step) % kValues);
}

void StormControls::any_request() {
  const Image& image = kImages[random_() % std::size(kImages)];
  const u32 kind = random_() % 8;
  if (kind < 3) {
    if (const auto value = get(image)) judge_reading(image, *value);
  } else if (kind < 6) {
    set(image, next_value(image, 1 + random_() % (kValues - 1u)));
  } else {
    send_other();
  }
}

ControlAnswer StormControls::request(u8 request, u8 entity, u8 selector, std::span<const u8> data,
                                     std::size_t length) {
  const auto setup = class_request(request, kVideoControlInterface, entity, selector, length);
  const double late_ms = metronome_.late_ms();
  const ControlAnswer answer = camera_.node.control(setup, data);
  ++tally_.requests;
  tally_.answer.note(answer.waited_ms);
  if (answer.waited_ms > rules_.longest_ms + metronome_.late_ms() - late_ms) {
    char text[96];
    std::snprintf(text, sizeof(text), "%s of selector %u in unit %u was %s %.0f ms", request_name(request),
                  selector, entity, answer.timed_out ? "not answered for" : "answered after",
                  answer.waited_ms);
    log_.fail(text);
  }
  return answer;
}

bool StormControls::set(const Image& image, u16 value) {
  u8 data[2];
  put_le16(data, value);
  if (request(UVC_SET_CUR, kProcessingUnit, image.selector, data, sizeof(data)).stalled) return false;
  last_[image.index()] = value;
  char line[64];
  std::snprintf(line, sizeof(line), "sys 39 81 01 04 %02X 00 00 00 %02X FF", image.command, value);
  sent_.push_back(line);
  ++tally_.settings;
  return true;
}

std::optional<u16> StormControls::get(const Image& image) {
  const auto answer = request(UVC_GET_CUR, kProcessingUnit, image.selector, {}, sizeof(u16));
  if (answer.data.size() != sizeof(u16)) return std::nullopt;
  return get_le16(answer.data.data());
}

void StormControls::judge_reading(const Image& image, u16 value) {
  const u16 wanted = last_[image.index()];
  const bool in_range = value >= image.least && value < image.least + kValues;
  if (rules_.exact ? value == wanted : in_range || !rules_.in_range) return;
  log_.fail(std::string(image.name) + " reads " + std::to_string(value) + ", last set to " +
            std::to_string(wanted));
}

// Requests of other units that are judged by their time only.
void StormControls::send_other() {
  const u8 byte = static_cast<u8>(random_());
  const u8 zoom[] = {byte, static_cast<u8>(byte / 4)};
  const u8 pan_tilt[] = {0, byte, static_cast<u8>(byte / 32), 0, byte, static_cast<u8>(byte / 64), 0, 0};
  const u8 turn[] = {static_cast<u8>(byte % 2), 1, static_cast<u8>(byte / 2 % 2), 1};
  switch (random_() % 6) {
    case 0:
      request(UVC_SET_CUR, kCameraTerminal, UVC_CT_ZOOM_ABSOLUTE_CONTROL, zoom, sizeof(zoom));
      break;
    case 1:
      request(UVC_SET_CUR, kCameraTerminal, UVC_CT_PANTILT_ABSOLUTE_CONTROL, pan_tilt, sizeof(pan_tilt));
      break;
    case 2:
      request(UVC_SET_CUR, kCameraTerminal, UVC_CT_PANTILT_RELATIVE_CONTROL, turn, sizeof(turn));
      break;
    case 3:
      request(UVC_SET_CUR, kExtensionUnit, 1, {&byte, 1}, 1);
      break;
    case 4:
      request(UVC_GET_CUR, kExtensionUnit, byte % 29, {}, 22);
      break;
    default:
      request(UVC_GET_CUR, kCameraTerminal, UVC_CT_ZOOM_ABSOLUTE_CONTROL, {}, sizeof(zoom));
  }
}

std::optional<double> StormControls::come_back(double limit) {
  const auto begin = Clock::now();
  const auto right = [&](const Image& image) {
    const u16 value = next_value(image, 1);
    return set(image, value) && get(image) == value;
  };
  while (!std::ranges::all_of(kImages, right)) {
    if (seconds_since(begin) > limit) return std::nullopt;
    std::this_thread::sleep_for(20ms);
  }
  return seconds_since(begin);
}

std::vector<std::string> StormControls::received_settings() {
  const auto lines = camera_.parties.server->received(heard_);
  heard_ += lines.size();
  std::vector<std::string> settings;
  for (const std::string& line : lines) {
    for (const Image& image : kImages) {
      char begin[24];
      std::snprintf(begin, sizeof(begin), "sys 39 81 01 04 %02X ", image.command);
      if (line.starts_with(begin)) settings.push_back(line.substr(0, line.find(" ->")));
    }
  }
  return settings;
}

void StormControls::judge_settings(bool may_lose) {
  camera_.node.settle(5s);
  auto expected = sent_.begin();
  for (const std::string& line : received_settings()) {
    const auto found = may_lose ? std::find(expected, sent_.end(), line) : expected;
    if (found == sent_.end() || *found != line) {
      log_.fail("the server received \"" + line + "\", a setting that was " +
                (found == sent_.end() ? "not sent, or received before" : "to come after \"" + *found + '"'));
      expected = sent_.end();
      break;
    }
    expected = found + 1;
  }
  if (!may_lose && expected != sent_.end()) log_.fail("the server did not receive \"" + *expected + '"');
  sent_.clear();
  const unsigned long before = std::exchange(refused_, camera_.parties.server->refused());
  if (refused_ > before && !may_lose)
    log_.fail("the server refused " + std::to_string(refused_ - before) + " requests");
}

}  // namespace sim
