// Calls the service's request handlers as its control thread does, next to a simulated system server, and
// reports the results.
#pragma once

#include <span>
#include <string>
#include <vector>

#include "sim/parties/server.h"
#include "sim/seam/node.h"
#include "sim/seam/run.h"
#include "uvc/uvc_class_control.h"

/// Where a control is found.
struct Place {
  u8 interface, entity, selector;
};

struct ProbeAnswer {
  std::vector<u8> bytes;  ///< what the handler wrote
  u8 status;              ///< UvcStatus
  std::vector<std::string> sent;
};

struct ProbeEffect {
  u8 status;
  /// VISCA frames as "`81 01 ... FF`", commands to the system server as "command 12: 2", and other effects.
  std::vector<std::string> sent;
};

class ControlProbe {
 public:
  ControlProbe();

  ProbeAnswer get(u8 request, const Place& place);
  ProbeEffect set(const Place& place, std::span<const u8> data);

 private:
  u8 serve(u8 request, const Place& place, std::size_t length);
  std::vector<std::string> news();

  sim::Run run_;
  sim::Server server_;
  sim::NodeHost node_;
  std::size_t lines_seen_ = 0, shell_seen_ = 0, calls_seen_ = 0;
  u32 disconnect_word_ = 0;
};

/// Returns a text such as "0F 00".
std::string hex(std::span<const u8> bytes);
