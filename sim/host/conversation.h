// Every class request between the USB host and the camera, with what it made the system server receive and
// reply. All class requests are sent through this; requests from several threads take turns.
#pragma once

#include <functional>
#include <mutex>
#include <string>
#include <vector>

#include "sim/seam/node.h"

namespace sim {

struct Exchange {
  double at_ms = 0;  ///< when the SETUP was sent, from the beginning of the conversation
  usb_ctrlrequest setup{};
  std::vector<u8> data{};  ///< the data stage: sent (SET) or received (GET)
  bool stalled = false, timed_out = false;
  /// What the server received, in its own words, and replied until the next request.
  std::vector<std::string> server{};
  double answer_ms = 0;  ///< from the SETUP to the answer
  /// From the SETUP until the service waits for the next event; negative if not in time.
  double served_ms = -1;
};

/// Returns a class request to a unit of an interface. `request` is one of UVC 1.0's, which
/// determines the direction.
usb_ctrlrequest class_request(u8 request, u8 interface, u8 entity, u8 selector, std::size_t length);
/// Returns a name such as "GET_CUR", or null if UVC 1.0 has no such request.
const char* request_name(u8 request);

/// Returns one line in columns: seconds, unit, request, control and value, outcome, milliseconds to the
/// answer and until it was served, the data, and what the server received, such as "  12.345  PU  SET_CUR
/// brightness = 15    ok    0.31   1.62 ms  [0F 00] | sys 39 81 01 04 A4 00 00 00 0F FF". Requests that UVC
/// does not have are shown as numbers.
std::string describe(const Exchange& exchange);
/// Returns the control and value alone, such as "brightness = 15".
std::string control_text(const Exchange& exchange);

/// Parts of that line: unit, request, control and value; "ok", "STALL" or "timeout"; the data.
std::string request_text(const Exchange& exchange);
const char* outcome_name(const Exchange& exchange);
std::string data_text(std::span<const u8> data);

class Conversation {
 public:
  /// `received` returns what the server has received from a line on, see Server::received(); it may be empty.
  Conversation(NodeHost& node, std::function<std::vector<std::string>(std::size_t from)> received);

  /// Calls NodeHost::control() and keeps the exchange. Returns when the service has served the data stage as
  /// well, or when the limit has passed since the SETUP.
  ControlAnswer control(const usb_ctrlrequest& setup, std::span<const u8> data = {},
                        std::chrono::milliseconds limit = std::chrono::seconds(5));
  /// Returns the exchanges so far from a number on, without those that still wait.
  std::vector<Exchange> exchanges(std::size_t from = 0);
  /// Returns the longest answer_ms since the last call.
  double take_slowest_ms();

 private:
  void hear();

  NodeHost& node_;
  const std::function<std::vector<std::string>(std::size_t from)> received_;
  const std::chrono::steady_clock::time_point begin_ = std::chrono::steady_clock::now();
  std::mutex turn_;  ///< held by the thread whose request is in progress
  std::mutex lock_;  ///< guards the members below
  std::vector<Exchange> exchanges_;
  std::size_t heard_ = 0;  ///< lines taken from the server so far
  double slowest_ms_ = 0;
};

}  // namespace sim
