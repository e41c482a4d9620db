#include "sim/usbip/virtual_port.h"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <sstream>

#include "sim/usbip/messages.h"

namespace sim {

namespace {

namespace fs = std::filesystem;

const fs::path kController = "/sys/devices/platform/vhci_hcd.0";
const std::string kInstead =
    "; \"./dev attach --listen\" offers the camera to another PC, and \"./dev bed\" shows it in a guest";

std::string contents(const fs::path& path) {
  std::ostringstream text;
  text << std::ifstream(path).rdbuf();
  return text.str();
}

// Why there is no controller, after an attempt to load its module.
std::string no_controller() {
  if (geteuid() != 0) return "loading the kernel's module vhci_hcd takes root: try sudo";
  return "this kernel has no module vhci_hcd, or this is a container, which cannot load it" + kInstead;
}

std::string cannot_open(int error) {
  if (error == EACCES) return "plugging a device into this PC takes root: try sudo";
  if (error == EROFS) return "/sys cannot be written, as in a container" + kInstead;
  return (kController / "attach").string() + ": " + std::strerror(error);
}

}  // namespace

std::vector<PortStatus> parse_port_status(std::string_view text) {
  std::vector<PortStatus> ports;
  std::istringstream lines{std::string(text)};
  for (std::string line; std::getline(lines, line);) {
    std::istringstream words(line);
    std::string hub, speed, device_id, socket;
    PortStatus port{};
    if (words >> hub >> port.port >> port.state >> speed >> device_id >> socket >> port.device) {
      port.high_speed = hub == "hs";
      ports.push_back(port);
    }
  }
  return ports;
}

VirtualController::VirtualController() {
  if (!fs::exists(kController) && geteuid() == 0)
    (void)!std::system("PATH=$PATH:/usr/sbin:/sbin modprobe vhci-hcd >/dev/null 2>&1");
  if (!fs::exists(kController)) {
    obstacle_ = no_controller();
    return;
  }
  attach_ = open((kController / "attach").c_str(), O_WRONLY | O_CLOEXEC);
  if (attach_ < 0) obstacle_ = cannot_open(errno);
}

VirtualController::~VirtualController() {
  if (attach_ >= 0) close(attach_);
}

// The first controller's "status", then "status.1" and so on for the others.
std::vector<PortStatus> VirtualController::ports() const {
  std::vector<PortStatus> ports;
  fs::path path = kController / "status";
  for (int number = 1; fs::exists(path); ++number) {
    std::ranges::copy(parse_port_status(contents(path)), std::back_inserter(ports));
    path = kController / ("status." + std::to_string(number));
  }
  return ports;
}

std::optional<u32> VirtualController::plug(int socket) {
  for (const PortStatus& port : ports()) {
    if (!port.high_speed || port.state != kPortFree) continue;
    const std::string order = std::to_string(port.port) + ' ' + std::to_string(socket) + ' ' +
                              std::to_string(kUsbipDevice) + ' ' + std::to_string(kSpeedHigh);
    if (pwrite(attach_, order.data(), order.size(), 0) == std::ssize(order)) return port.port;
    if (errno == EBUSY) continue;  // somebody else has taken it since
    obstacle_ = std::string("the virtual USB host controller refuses the camera: ") + std::strerror(errno);
    return std::nullopt;
  }
  obstacle_ =
      "the virtual USB host controller has no free port: detach another device (usbip port lists them)";
  return std::nullopt;
}

std::string VirtualController::device_at(u32 number) const {
  for (const PortStatus& port : ports()) {
    if (port.port == number && port.state != kPortFree && port.device != "0-0") return port.device;
  }
  return "";
}

std::string video_node_of(const std::string& device) {
  std::error_code ignored;
  const fs::path nodes = "/sys/bus/usb/devices/" + device + '/' + device + ":1.0/video4linux";
  for (const auto& node : fs::directory_iterator(nodes, ignored)) {
    if (contents(node.path() / "index") == "0\n") return "/dev/" + node.path().filename().string();
  }
  return "";
}

}  // namespace sim
