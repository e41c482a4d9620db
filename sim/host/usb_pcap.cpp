#include "sim/host/usb_pcap.h"

#include <pcap/pcap.h>
#include <pcap/usb.h>

#include <algorithm>
#include <cerrno>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <memory>

#include "sim/host/usb_descriptors.h"

namespace sim {

namespace {

constexpr u8 kDevice = 1, kBus = 1;
constexpr int kLargestPacket = 1 << 16;

usb_ctrlrequest standard_request(u8 direction, u8 request, u16 value, std::size_t length) {
  usb_ctrlrequest setup{};
  setup.bRequestType = direction;
  setup.bRequest = request;
  setup.wValue = value;
  setup.wLength = static_cast<u16>(length);
  return setup;
}

Exchange get_descriptor(u8 type, std::vector<u8> descriptor, std::size_t length) {
  descriptor.resize(length);
  const auto value = static_cast<u16>(type << 8);
  return {.setup = standard_request(USB_DIR_IN, USB_REQ_GET_DESCRIPTOR, value, length), .data = descriptor};
}

// The requests that every host sends before class requests.
std::vector<Exchange> enumeration() {
  const auto device = device_descriptor(), configuration = configuration_descriptor();
  return {get_descriptor(USB_DT_DEVICE, device, device.size()),
          get_descriptor(USB_DT_CONFIG, configuration, USB_DT_CONFIG_SIZE),
          get_descriptor(USB_DT_CONFIG, configuration, configuration.size()),
          {.setup = standard_request(USB_DIR_OUT, USB_REQ_SET_CONFIGURATION, 1, 0)}};
}

// One of the two records of a transfer.
struct Record {
  char event;
  double at_ms;
  i32 status;
  u32 length;
  std::span<const u8> data;  // transferred with this record
};

class Capture {
 public:
  explicit Capture(const std::string& path)
      : pcap_(pcap_open_dead(DLT_USB_LINUX_MMAPPED, kLargestPacket), pcap_close),
        file_(pcap_dump_open(pcap_.get(), path.c_str()), pcap_dump_close) {}

  void add(const Exchange& exchange) {
    const bool in = exchange.setup.bRequestType & USB_DIR_IN;
    const i32 status = exchange.timed_out ? -ENOENT : exchange.stalled ? -EPIPE : 0;
    const std::span<const u8> data = exchange.data, none;
    const auto moved = static_cast<u32>(status ? 0 : data.size());
    ++transfer_;
    add(exchange, {URB_SUBMIT, exchange.at_ms, -EINPROGRESS, exchange.setup.wLength, in ? none : data});
    add(exchange, {URB_COMPLETE, exchange.at_ms + exchange.answer_ms, status, moved, in ? data : none});
  }
  bool good() const { return file_ && pcap_dump_flush(file_.get()) == 0; }
  const char* error() const { return file_ ? std::strerror(errno) : pcap_geterr(pcap_.get()); }

 private:
  void add(const Exchange& exchange, const Record& record);

  const std::unique_ptr<pcap_t, void (*)(pcap_t*)> pcap_;
  const std::unique_ptr<pcap_dumper_t, void (*)(pcap_dumper_t*)> file_;
  u64 transfer_ = 0;
};

void Capture::add(const Exchange& exchange, const Record& record) {
  const auto microseconds = std::llround(record.at_ms * 1000);
  pcap_usb_header_mmapped header{};
  header.id = transfer_;
  header.event_type = static_cast<u8>(record.event);
  header.transfer_type = URB_CONTROL;
  header.endpoint_number = exchange.setup.bRequestType & USB_DIR_IN;
  header.device_address = kDevice;
  header.bus_id = kBus;
  header.setup_flag = record.event == URB_SUBMIT ? 0 : '-';
  header.data_flag = record.data.empty() ? (record.event == URB_SUBMIT ? '<' : '>') : 0;
  header.ts_sec = microseconds / 1'000'000;
  header.ts_usec = static_cast<i32>(microseconds % 1'000'000);
  header.status = record.status;
  header.urb_len = record.length;
  header.data_len = static_cast<u32>(record.data.size());
  if (record.event == URB_SUBMIT) std::memcpy(&header.s.setup, &exchange.setup, sizeof(exchange.setup));

  std::vector<u8> packet(sizeof(header) + record.data.size());
  std::memcpy(packet.data(), &header, sizeof(header));
  std::ranges::copy(record.data, packet.begin() + sizeof(header));
  const auto size = static_cast<bpf_u_int32>(packet.size());
  const pcap_pkthdr place{.ts = {header.ts_sec, header.ts_usec}, .caplen = size, .len = size};
  pcap_dump(reinterpret_cast<u_char*>(file_.get()), &place, packet.data());
}

}  // namespace

bool write_pcap(const std::string& path, const std::vector<Exchange>& exchanges) {
  Capture capture(path);
  if (capture.good()) {
    for (const Exchange& exchange : enumeration()) capture.add(exchange);
    for (const Exchange& exchange : exchanges) capture.add(exchange);
  }
  if (capture.good()) return true;
  std::fprintf(stderr, "cannot write the capture %s: %s\n", path.c_str(), capture.error());
  return false;
}

}  // namespace sim
