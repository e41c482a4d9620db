#include "sim/host/conversation.h"

#include <linux/usb/video.h>

#include <algorithm>
#include <cstdio>
#include <iterator>
#include <utility>

#include "sim/host/host_controls.h"
#include "sim/host/usb_host.h"
#include "sim/seam/milliseconds.h"

namespace sim {

namespace {

using Clock = std::chrono::steady_clock;

// Wide enough for both pan and tilt at their limits.
constexpr std::size_t kRequestColumns = 61;

u8 interface_of(const usb_ctrlrequest& setup) { return static_cast<u8>(setup.wIndex); }
u8 entity_of(const usb_ctrlrequest& setup) { return static_cast<u8>(setup.wIndex >> 8); }
u8 selector_of(const usb_ctrlrequest& setup) { return static_cast<u8>(setup.wValue >> 8); }

struct Unit {
  u8 interface, entity;
  const char* name;
};
constexpr Unit kUnits[] = {
    {kVideoControlInterface, kCameraTerminal, "CT"},
    {kVideoControlInterface, kProcessingUnit, "PU"},
    {kVideoControlInterface, kExtensionUnit, "XU"},
    {kVideoStreamingInterface, 0, "VS"},
};

const Unit* unit_of(const usb_ctrlrequest& setup) {
  const auto found = std::ranges::find_if(kUnits, [&](const Unit& unit) {
    return unit.interface == interface_of(setup) && unit.entity == entity_of(setup);
  });
  return found == std::end(kUnits) ? nullptr : found;
}

// GET_LEN and GET_INFO ask about the whole control, not about a value.
bool asks_for_attribute(const usb_ctrlrequest& setup) {
  return setup.bRequest == UVC_GET_LEN || setup.bRequest == UVC_GET_INFO;
}

struct NamedValue {
  std::string name, value{};  // empty if not known
};

NamedValue stream_value(const Exchange& exchange) {
  const char* const name = selector_of(exchange.setup) == UVC_VS_PROBE_CONTROL ? "probe" : "commit";
  const auto choice = choice_in(exchange.data);
  if (!choice) return {name};
  return {name, name_of(*choice) + ", " + std::to_string(choice->rate) + " frames/s"};
}

// Returns what the selector carries.
std::vector<NamedValue> named_values(const Exchange& exchange) {
  const usb_ctrlrequest& setup = exchange.setup;
  const u8 selector = selector_of(setup);
  const bool stream = selector == UVC_VS_PROBE_CONTROL || selector == UVC_VS_COMMIT_CONTROL;
  if (interface_of(setup) == kVideoStreamingInterface && stream) return {stream_value(exchange)};
  std::vector<NamedValue> values;
  for (const HostControl& control : host_controls()) {
    if (control.entity != entity_of(setup) || control.selector != selector) continue;
    const auto value = value_in(control, setup.bRequest, exchange.data);
    values.push_back({control.name, value ? std::to_string(*value) : ""});
  }
  if (values.empty()) values.push_back({"selector " + std::to_string(selector)});
  return values;
}

}  // namespace

std::string request_text(const Exchange& exchange) {
  const usb_ctrlrequest& setup = exchange.setup;
  const Unit* const unit = unit_of(setup);
  const char* const request = request_name(setup.bRequest);
  const u8 type = USB_TYPE_CLASS | USB_RECIP_INTERFACE | (setup.bRequest & USB_DIR_IN);
  char text[80];
  if (!unit || !request || setup.bRequestType != type) {
    std::snprintf(text, sizeof(text), "--  type 0x%02X request 0x%02X value 0x%04X index 0x%04X length %u",
                  setup.bRequestType, setup.bRequest, setup.wValue, setup.wIndex, setup.wLength);
    return text;
  }
  std::snprintf(text, sizeof(text), "%s  %-8s  ", unit->name, request);
  return text + control_text(exchange);
}

const char* outcome_name(const Exchange& exchange) {
  return exchange.timed_out ? "timeout" : exchange.stalled ? "STALL" : "ok";
}

std::string data_text(std::span<const u8> data) {
  std::string text;
  char byte[4];
  for (const u8 value : data) {
    std::snprintf(byte, sizeof(byte), " %02X", value);
    text += byte;
  }
  return text.empty() ? "" : text.substr(1);
}

namespace {

std::string outcome_text(const Exchange& exchange) {
  char text[64], served[24] = "-";
  if (exchange.served_ms >= 0) std::snprintf(served, sizeof(served), "%.2f", exchange.served_ms);
  std::snprintf(text, sizeof(text), "  %-7s %7.2f %7s ms", outcome_name(exchange), exchange.answer_ms,
                served);
  return text;
}

}  // namespace

usb_ctrlrequest class_request(u8 request, u8 interface, u8 entity, u8 selector, std::size_t length) {
  usb_ctrlrequest setup{};
  setup.bRequestType = USB_TYPE_CLASS | USB_RECIP_INTERFACE | (request & USB_DIR_IN);
  setup.bRequest = request;
  setup.wValue = static_cast<u16>(selector << 8);
  setup.wIndex = static_cast<u16>(entity << 8 | interface);
  setup.wLength = static_cast<u16>(length);
  return setup;
}

const char* request_name(u8 request) {
  constexpr const char* kGets[] = {"GET_CUR", "GET_MIN",  "GET_MAX", "GET_RES",
                                   "GET_LEN", "GET_INFO", "GET_DEF"};
  if (request == UVC_SET_CUR) return "SET_CUR";
  return request >= UVC_GET_CUR && request <= UVC_GET_DEF ? kGets[request - UVC_GET_CUR] : nullptr;
}

std::string control_text(const Exchange& exchange) {
  const bool attribute = asks_for_attribute(exchange.setup);
  std::string text;
  for (const auto& [name, value] : named_values(exchange)) {
    text += (text.empty() ? "" : ", ") + name;
    if (!attribute && !value.empty()) text += " = " + value;
  }
  const auto& data = exchange.data;
  if (!attribute || data.empty()) return text;
  return text + " = " + std::to_string(data.size() == 1 ? data[0] : get_le16(data.data()));
}

std::string describe(const Exchange& exchange) {
  std::string request = request_text(exchange);
  request.resize(std::max(request.size(), kRequestColumns), ' ');
  char time[24];
  std::snprintf(time, sizeof(time), "%8.3f  ", exchange.at_ms / 1000);
  std::string line = time + request + outcome_text(exchange);
  if (!exchange.data.empty()) line += "  [" + data_text(exchange.data) + ']';
  for (const std::string& received : exchange.server) line += " | " + received;
  return line;
}

Conversation::Conversation(NodeHost& node, std::function<std::vector<std::string>(std::size_t from)> received)
    : node_(node), received_(std::move(received)) {}

// Adds what the server has received to the last request.
void Conversation::hear() {
  const std::lock_guard guard(lock_);
  const auto lines = received_ ? received_(heard_) : std::vector<std::string>();
  heard_ += lines.size();
  if (!exchanges_.empty()) std::ranges::copy(lines, std::back_inserter(exchanges_.back().server));
}

ControlAnswer Conversation::control(const usb_ctrlrequest& setup, std::span<const u8> data,
                                    std::chrono::milliseconds limit) {
  const std::lock_guard turn(turn_);
  hear();
  const auto begin = Clock::now();
  const ControlAnswer answer = node_.control(setup, data, limit);
  const auto left = std::chrono::ceil<std::chrono::milliseconds>(begin + limit - Clock::now());
  const bool served = node_.settle(left);
  Exchange exchange{
      .at_ms = in_milliseconds(begin - begin_),
      .setup = setup,
      .data = setup.bRequestType & USB_DIR_IN ? answer.data : std::vector(data.begin(), data.end()),
      .stalled = answer.stalled,
      .timed_out = answer.timed_out,
      .answer_ms = answer.waited_ms,
      .served_ms = served ? in_milliseconds(Clock::now() - begin) : -1};
  {
    const std::lock_guard guard(lock_);
    slowest_ms_ = std::max(slowest_ms_, exchange.answer_ms);
    exchanges_.push_back(std::move(exchange));
  }
  hear();
  return answer;
}

double Conversation::take_slowest_ms() {
  const std::lock_guard guard(lock_);
  return std::exchange(slowest_ms_, 0);
}

std::vector<Exchange> Conversation::exchanges(std::size_t from) {
  // What the server receives meanwhile belongs to the request in progress.
  if (const std::unique_lock turn(turn_, std::try_to_lock); turn) hear();
  const std::lock_guard guard(lock_);
  const std::span<const Exchange> rest = std::span(exchanges_).subspan(std::min(from, exchanges_.size()));
  return {rest.begin(), rest.end()};
}

}  // namespace sim
