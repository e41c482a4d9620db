// A host's connection to a device by USB/IP, once the device is the host's: takes transfers (URBs), has the
// device carry them out, and answers each exactly once. Isochronous ones keep the pace of a high-speed bus.
#pragma once

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <deque>
#include <map>
#include <mutex>
#include <optional>
#include <set>
#include <span>
#include <thread>
#include <vector>

#include "sim/usbip/messages.h"

namespace sim {

struct ControlOutcome {
  enum Kind { kDone, kStalled, kNoAnswer } kind = kDone;
  std::vector<u8> data{};  ///< of an IN request; what exceeds wLength is left out
};

/// The device's part. control() and fill() are called by one thread each.
class UrbDevice {
 public:
  virtual ~UrbDevice() = default;
  /// Carries out a request to endpoint 0. May wait for some seconds.
  virtual ControlOutcome control(const usb_ctrlrequest& setup, std::span<const u8> data) = 0;
  /// Fills the packets that go over the bus by now, one after the other, into `data`, which has room for all
  /// of them, and sets what each has. Returns the sum. Does not wait.
  virtual std::size_t fill(std::span<IsoPacket> packets, std::span<u8> data) = 0;
  /// The host is gone; control() may be waiting at that time.
  virtual void disconnect() = 0;
};

class UrbConnection {
 public:
  /// Serves the host at the other end of a connected stream socket, which this now owns, until that end
  /// closes it, breaks the protocol or end() is called.
  UrbConnection(int socket, UrbDevice& device);
  ~UrbConnection();  ///< ends it, and waits for its threads
  UrbConnection(const UrbConnection&) = delete;

  /// Any thread may call these.
  void end();
  bool ended() const { return ended_; }

 private:
  using Clock = std::chrono::steady_clock;
  struct Urb {
    UrbRequest request;
    std::vector<u8> data{};  ///< of an OUT transfer
    std::vector<IsoPacket> packets{};
    Clock::time_point due{};  ///< isochronous: when it has gone over the bus
  };
  using Queue = std::deque<Urb>;

  void serve();
  bool take_request();
  bool add(Urb urb);
  bool take_back(const UrbRequest& request);
  std::optional<Urb> next(Queue& queue);
  void run_control();
  void run_stream();
  void answer(const Urb& urb, i32 status, std::span<const u8> data = {});
  void answer_control(const Urb& urb, const ControlOutcome& outcome);
  bool send(std::span<const u8> bytes);
  bool receive(std::span<u8> bytes);

  const int socket_;
  UrbDevice& device_;
  std::atomic<bool> ended_ = false;
  std::mutex lock_;  ///< guards the members below, and sending
  std::condition_variable changed_;
  std::set<u32> open_;                   ///< numbers of the transfers that have no answer yet
  u32 newest_ = 0;                       ///< number of the last transfer that came; they come in order
  std::map<u32, u32> taken_back_early_;  ///< transfers that have not come, with the requests' numbers
  Queue controls_, streams_;
  Clock::time_point bus_free_{};
  std::thread control_thread_, stream_thread_, reader_;
};

}  // namespace sim
