// The camera offered to other PCs over TCP, as the stock "usbip attach -r" asks for it. A client that says
// nothing, nonsense or too much is dropped; none can keep another from being served.
#pragma once

#include <atomic>
#include <functional>
#include <optional>
#include <string>
#include <thread>

#include "common/bytes.h"

namespace sim {

constexpr u16 kUsbipPort = 3240;

class Listener {
 public:
  struct Offer {
    std::function<bool()> available;    ///< the camera can be imported now
    std::function<bool(int)> imported;  ///< takes over the connected socket; false: somebody else was faster
  };

  /// Listens at an address, numeric, with a port of 0 for any free one. Without success, error() tells why.
  Listener(const std::string& address, u16 port, Offer offer);
  ~Listener();
  Listener(const Listener&) = delete;
  const std::string& error() const { return error_; }
  u16 port() const { return port_; }

 private:
  void serve();

  const Offer offer_;
  int socket_ = -1;
  u16 port_ = 0;
  std::string error_;
  std::atomic<bool> ending_ = false;
  std::thread thread_;
};

}  // namespace sim
