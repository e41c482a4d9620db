// A port of this PC's virtual USB host controller (Linux's vhci_hcd), into which the camera is plugged.
#pragma once

#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "common/bytes.h"

namespace sim {

/// A port as the controller's "status" files list it.
struct PortStatus {
  bool high_speed;
  u32 port;
  u32 state;           ///< 4: free; 6: in use
  std::string device;  ///< its name on this PC, such as "3-1", once it has been enumerated
};
constexpr u32 kPortFree = 4;
/// Reads such a file's text; lines that are not as expected are left out.
std::vector<PortStatus> parse_port_status(std::string_view text);

class VirtualController {
 public:
  /// Loads the kernel's module if it is not there. Without a controller, or the right to use it, obstacle()
  /// tells why and what to do instead. The right is needed here only: what is opened stays open.
  VirtualController();
  ~VirtualController();
  VirtualController(const VirtualController&) = delete;
  const std::string& obstacle() const { return obstacle_; }

  /// Plugs the device that answers at the other end of a stream socket into a free port. The kernel keeps the
  /// socket; the caller closes its own descriptor. To pull the plug, close the other end. Returns the port,
  /// or nothing with an obstacle().
  std::optional<u32> plug(int socket);
  /// Returns the name of what is plugged into the port, such as "3-1"; empty if it has none.
  std::string device_at(u32 port) const;

 private:
  std::vector<PortStatus> ports() const;

  int attach_ = -1;
  std::string obstacle_;
};

/// Returns a USB device's video capture node, such as "/dev/video2"; empty if it has none.
std::string video_node_of(const std::string& device);

}  // namespace sim
