// Every class request between the USB host and the camera, with what it made the system server receive and
// reply. Whoever sends class requests sends them through this; requests from several threads take turns.
#pragma once

#include <functional>
#include <mutex>
#include <string>
#include <vector>

#include "sim/seam/node.h"

namespace sim {

struct Exchange {
  double at_ms = 0;  ///< of the SETUP, since the conversation began
  usb_ctrlrequest setup{};
  std::vector<u8> data{};  ///< the data stage: sent (SET) or received (GET)
  bool stalled = false, timed_out = false;
  std::vector<std::string>
      server{};           ///< what it received until the next request and replied, in its own words
  double answer_ms = 0;   ///< from SETUP to the answer
  double served_ms = -1;  ///< from SETUP until the service looks for the next event; negative: not in time
};

/// A class request to a unit of an interface; `request` is one of UVC 1.0's, and so gives the direction.
usb_ctrlrequest class_request(u8 request, u8 interface, u8 entity, u8 selector, std::size_t length);
/// Such as "GET_CUR"; null: UVC 1.0 has no such request.
const char* request_name(u8 request);

/// One line in columns: seconds, unit, request, control and value, outcome, milliseconds to the answer and
/// until it was served, the data, and what the server received, such as "  12.345  PU  SET_CUR   brightness =
/// 15    ok    0.31   1.62 ms  [0F 00] | sys 39 81 01 04 A4 00 00 00 0F FF". What is none of UVC's requests
/// is shown in numbers.
std::string describe(const Exchange& exchange);

class Conversation {
 public:
  /// `received` gives what the server has received since a line, see Server::received(); it may be empty.
  Conversation(NodeHost& node, std::function<std::vector<std::string>(std::size_t from)> received);

  /// NodeHost::control(), kept. Returns when the service has also served the data stage, or the limit has
  /// passed since the SETUP.
  ControlAnswer control(const usb_ctrlrequest& setup, std::span<const u8> data = {},
                        std::chrono::milliseconds limit = std::chrono::seconds(5));
  /// All so far, without one that still waits.
  std::vector<Exchange> exchanges();
  /// The longest answer_ms since the last call.
  double take_slowest_ms();

 private:
  void hear();

  NodeHost& node_;
  const std::function<std::vector<std::string>(std::size_t from)> received_;
  const std::chrono::steady_clock::time_point begin_ = std::chrono::steady_clock::now();
  std::mutex turn_;  ///< held by the thread whose request is under way
  std::mutex lock_;  ///< of what follows
  std::vector<Exchange> exchanges_;
  std::size_t heard_ = 0;  ///< lines of the server so far
  double slowest_ms_ = 0;
};

}  // namespace sim
