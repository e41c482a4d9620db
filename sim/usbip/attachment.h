// The camera at a host that is not ours: this PC's own, by its virtual USB host controller, or another PC.
#pragma once

#include <atomic>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <thread>

#include "sim/usbip/listener.h"
#include "sim/usbip/urbs.h"
#include "sim/usbip/virtual_port.h"

namespace sim {

/// Where the hosts come from.
struct HostPlace {
  VirtualController* controller = nullptr;  ///< of this PC; null: hosts connect over TCP
  std::string address{};                    ///< at which to listen then, numeric
  u16 port = kUsbipPort;
};

class Attachment {
 public:
  /// While `present` says so, which it is asked all the time, the device is on the bus: in a port of the
  /// controller, or waiting for a client. If this PC lets go of it, it stays out until `present` has changed.
  Attachment(UrbDevice& device, const HostPlace& place, std::function<bool()> present);
  ~Attachment();  ///< takes the device off the bus
  Attachment(const Attachment&) = delete;

  /// Any thread may call these. Why the device cannot be on the bus; empty if nothing is wrong.
  std::string error() const;
  bool connected() const;  ///< a host has the device
  /// The camera's node on this PC, such as "/dev/video2", once its driver has made one.
  std::string video_node() const;
  u16 port() const { return listener_ ? listener_->port() : 0; }  ///< at which it listens

 private:
  void follow();
  void look();
  void plug();
  bool take_client(int socket);

  UrbDevice& device_;
  VirtualController* const controller_;
  const std::function<bool()> present_;
  mutable std::mutex lock_;  ///< guards the members below up to the listener
  std::unique_ptr<UrbConnection> connection_;
  std::optional<u32> port_;  ///< of the controller
  bool let_go_ = false;      ///< the host did, or never took it
  std::string error_, node_;
  std::optional<Listener> listener_;
  std::atomic<bool> ending_ = false;
  std::thread thread_;
};

}  // namespace sim
