// The camera as a USB device, below the gadget node: what a USB device controller and the kernel's gadget
// driver do with the host's requests, and the packets of its stream. Class requests go to the service.
#pragma once

#include <atomic>
#include <functional>
#include <mutex>
#include <optional>
#include <string>

#include "sim/host/conversation.h"
#include "sim/host/usb_host.h"
#include "sim/usbip/payloads.h"
#include "sim/usbip/urbs.h"

namespace sim {

/// What went over the bus so far.
struct StreamCounts {
  unsigned long frames = 0;
  u64 bytes = 0;
};

/// One host at a time; see UrbDevice for its threads. The others may be called from any thread.
class Gadget : public UrbDevice {
 public:
  Gadget(NodeHost& node, Conversation& conversation) : node_(node), conversation_(conversation) {}

  /// Called with what was committed when a stream begins, and with null at its end. Set before a host comes.
  void on_stream(std::function<void(const StreamChoice*)> handler) { on_stream_ = std::move(handler); }

  ControlOutcome control(const usb_ctrlrequest& setup, std::span<const u8> data) override;
  std::size_t fill(std::span<IsoPacket> packets, std::span<u8> data) override;
  /// The cable was pulled, or the host has let go.
  void disconnect() override;

  /// The stream that runs, if one does.
  std::optional<StreamChoice> stream();
  StreamCounts counts() const { return {frames_, bytes_}; }

 private:
  ControlOutcome standard_request(const usb_ctrlrequest& setup);
  ControlOutcome get_descriptor(const usb_ctrlrequest& setup);
  ControlOutcome set_configuration(const usb_ctrlrequest& setup);
  ControlOutcome set_interface(const usb_ctrlrequest& setup);
  ControlOutcome class_request(const usb_ctrlrequest& setup, std::span<const u8> data);
  bool begin_frame(i64 time);
  void stream_begins();
  void stream_ended();

  NodeHost& node_;
  Conversation& conversation_;
  std::function<void(const StreamChoice*)> on_stream_ = [](const StreamChoice*) {};
  std::atomic<u8> configuration_ = 0, alternate_ = 0;  ///< the latter of the streaming interface
  std::atomic<unsigned> starts_ = 0;                   ///< of streams, so far
  PayloadCutter cutter_;                               ///< this and the next: fill()'s thread only
  unsigned cut_start_ = 0;                             ///< the start of the stream that is being cut
  std::atomic<unsigned long> frames_ = 0;
  std::atomic<u64> bytes_ = 0;
  std::mutex lock_;  ///< guards the members below
  std::optional<StreamChoice> committed_, stream_;
};

}  // namespace sim
