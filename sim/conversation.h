// Every class request between the USB host and the camera, with what it made the system server receive and
// reply. Whoever sends class requests sends them through this; requests from several threads take turns.
#pragma once

#include <functional>
#include <mutex>
#include <string>
#include <vector>

#include "sim/node.h"

namespace sim {

struct Exchange {
  double at_ms = 0;  ///< of the SETUP, since the conversation began
  usb_ctrlrequest setup{};
  std::vector<u8> data{};  ///< the data stage: sent (SET) or received (GET)
  bool stalled = false, timed_out = false;
  std::vector<std::string> server{};  ///< what the server received meanwhile and replied, in its own words
  double answer_ms = 0;               ///< from SETUP to the answer
  double served_ms = 0;               ///< from SETUP until the service looks for the next event
};

/// One line: "0012.345 PU SET_CUR brightness = 15 [0F 00] | sys 39 81 01 04 A4 00 00 00 0F FF -> 90 41 FF |
/// ok 0.31 ms". Requests that no descriptor names are shown in numbers.
std::string describe(const Exchange& exchange);

class Conversation {
 public:
  /// `received` gives what the server has received since a line, see Server::received().
  using Received = std::function<std::vector<std::string>(std::size_t from)>;
  Conversation(NodeHost& node, Received received);

  /// NodeHost::control(), kept. Returns when the service has also served the data stage, within the limit.
  ControlAnswer control(const usb_ctrlrequest& setup, std::span<const u8> data = {},
                        std::chrono::milliseconds limit = std::chrono::seconds(5));
  std::vector<Exchange> exchanges() const;

 private:
  NodeHost& node_;
  const Received received_;
  const i64 begun_;
  mutable std::mutex lock_;
  std::vector<Exchange> exchanges_;
};

}  // namespace sim
