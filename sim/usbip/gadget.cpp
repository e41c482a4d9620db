#include "sim/usbip/gadget.h"

#include <linux/usb/video.h>

#include <algorithm>
#include <utility>

#include "sim/host/host_controls.h"
#include "sim/host/usb_descriptors.h"
#include "sim/seam/wait_on.h"

namespace sim {

namespace {

using namespace std::chrono_literals;

constexpr u8 kConfiguration = 1;
constexpr auto kPatience = 4900ms;  // Linux takes a request back after 5 s

// The first two bytes of a SETUP.
constexpr u16 kind(u8 type, u8 request) { return static_cast<u16>(request << 8 | type); }

const ControlOutcome kDone{}, kStalled{.kind = ControlOutcome::kStalled};

ControlOutcome answered(std::vector<u8> data, const usb_ctrlrequest& setup) {
  data.resize(std::min<std::size_t>(data.size(), setup.wLength));
  return {.data = std::move(data)};
}

bool is_commit(const usb_ctrlrequest& setup) {
  const auto commit = sim::class_request(UVC_SET_CUR, kVideoStreamingInterface, 0, UVC_VS_COMMIT_CONTROL, 0);
  return setup.bRequestType == commit.bRequestType && setup.bRequest == commit.bRequest &&
         setup.wValue == commit.wValue && setup.wIndex == commit.wIndex;
}

}  // namespace

// The requests of every USB device.
ControlOutcome Gadget::standard_request(const usb_ctrlrequest& setup) {
  constexpr u8 kIn = USB_DIR_IN, kOut = USB_DIR_OUT;
  switch (kind(setup.bRequestType, setup.bRequest)) {
    case kind(kIn | USB_RECIP_DEVICE, USB_REQ_GET_DESCRIPTOR):
      return get_descriptor(setup);
    case kind(kIn | USB_RECIP_DEVICE, USB_REQ_GET_CONFIGURATION):
      return answered({configuration_}, setup);
    case kind(kOut | USB_RECIP_DEVICE, USB_REQ_SET_CONFIGURATION):
      return set_configuration(setup);
    case kind(kIn | USB_RECIP_INTERFACE, USB_REQ_GET_INTERFACE):
      return answered({setup.wIndex == kVideoStreamingInterface ? alternate_.load() : u8{0}}, setup);
    case kind(kOut | USB_RECIP_INTERFACE, USB_REQ_SET_INTERFACE):
      return set_interface(setup);
    case kind(kIn | USB_RECIP_DEVICE, USB_REQ_GET_STATUS):
      return answered({1 << USB_DEVICE_SELF_POWERED, 0}, setup);
    case kind(kIn | USB_RECIP_INTERFACE, USB_REQ_GET_STATUS):
    case kind(kIn | USB_RECIP_ENDPOINT, USB_REQ_GET_STATUS):
      return answered({0, 0}, setup);
    case kind(kOut | USB_RECIP_DEVICE, USB_REQ_SET_ADDRESS):  // the host's controller has already seen to it
    case kind(kOut | USB_RECIP_ENDPOINT, USB_REQ_CLEAR_FEATURE):
      return kDone;
    default:
      return kStalled;
  }
}

ControlOutcome Gadget::control(const usb_ctrlrequest& setup, std::span<const u8> data) {
  switch (setup.bRequestType & USB_TYPE_MASK) {
    case USB_TYPE_STANDARD:
      return standard_request(setup);
    case USB_TYPE_CLASS:
      return class_request(setup, data);
    default:
      return kStalled;
  }
}

ControlOutcome Gadget::get_descriptor(const usb_ctrlrequest& setup) {
  switch (setup.wValue) {
    case USB_DT_DEVICE << 8:
      return answered(device_descriptor(), setup);
    case USB_DT_CONFIG << 8:
      return answered(configuration_descriptor(), setup);
    default:
      return kStalled;
  }
}

ControlOutcome Gadget::set_configuration(const usb_ctrlrequest& setup) {
  if (setup.wValue > kConfiguration) return kStalled;
  disconnect();
  configuration_ = static_cast<u8>(setup.wValue);
  if (configuration_) node_.connect();
  return kDone;
}

ControlOutcome Gadget::set_interface(const usb_ctrlrequest& setup) {
  if (!configuration_) return kStalled;
  if (setup.wIndex == kVideoControlInterface) return setup.wValue == 0 ? kDone : kStalled;
  if (setup.wIndex != kVideoStreamingInterface || setup.wValue > 1) return kStalled;
  const bool on = setup.wValue == 1;
  alternate_ = static_cast<u8>(setup.wValue);
  if (!on) stream_ended();
  if (on == node_.streaming()) return kDone;
  if (on) stream_begins();
  // The host gets its status when the service has switched its stream on or off.
  const bool switched = on ? node_.stream_on(kPatience) : node_.stream_off(kPatience);
  return switched ? kDone : ControlOutcome{.kind = ControlOutcome::kNoAnswer};
}

ControlOutcome Gadget::class_request(const usb_ctrlrequest& setup, std::span<const u8> data) {
  if ((setup.bRequestType & USB_RECIP_MASK) != USB_RECIP_INTERFACE) return kStalled;
  const ControlAnswer answer = conversation_.control(setup, data, kPatience);
  if (answer.timed_out) return {.kind = ControlOutcome::kNoAnswer};
  if (answer.stalled) return kStalled;
  if (is_commit(setup)) {
    const std::lock_guard guard(lock_);
    committed_ = choice_in(data);
  }
  return answered(answer.data, setup);
}

std::size_t Gadget::fill(std::span<IsoPacket> packets, std::span<u8> data) {
  if (std::exchange(cut_start_, starts_) != cut_start_) cutter_.reset();
  const i64 now = monotonic_ns();
  std::size_t filled = 0;
  for (IsoPacket& packet : packets) {
    if (cutter_.done() && !begin_frame(now)) break;  // what is left of the packets stays empty
    const std::size_t room = std::min<std::size_t>(packet.length, data.size() - filled);
    packet.actual = static_cast<u32>(cutter_.cut(data.subspan(filled, room), now));
    filled += packet.actual;
  }
  return filled;
}

bool Gadget::begin_frame(i64 time) {
  std::vector<u8> frame;
  if (!node_.take_frame(frame, 0ms)) return false;
  if (frame.size() > kEmptyPayload) {
    ++frames_;
    bytes_ += frame.size();
  }
  cutter_.begin(std::move(frame), time);
  return true;
}

void Gadget::disconnect() {
  stream_ended();
  if (configuration_.exchange(0) != 0) node_.disconnect();
}

void Gadget::stream_begins() {
  ++starts_;
  std::unique_lock guard(lock_);
  const auto stream = stream_ = committed_;
  guard.unlock();
  if (stream) on_stream_(&*stream);
}

void Gadget::stream_ended() {
  std::unique_lock guard(lock_);
  if (!std::exchange(stream_, std::nullopt)) return;
  guard.unlock();
  on_stream_(nullptr);
}

std::optional<StreamChoice> Gadget::stream() {
  const std::lock_guard guard(lock_);
  return stream_;
}

}  // namespace sim
