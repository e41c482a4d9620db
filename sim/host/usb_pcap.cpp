#include "sim/host/usb_pcap.h"

#include <pcap/pcap.h>
#include <pcap/usb.h>

#include <algorithm>
#include <cerrno>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <map>
#include <memory>
#include <sstream>

#include "sim/host/host_controls.h"
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

using Pcap = std::unique_ptr<pcap_t, void (*)(pcap_t*)>;

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

  const Pcap pcap_;
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

// One record of a capture: its header, and the data behind it.
struct ReadRecord {
  pcap_usb_header header;
  std::vector<u8> data;
};

// Returns nothing if the packet is shorter than its header says.
std::optional<ReadRecord> record_in(std::span<const u8> packet, std::size_t header_size) {
  ReadRecord record;
  if (packet.size() < header_size) return std::nullopt;
  std::memcpy(&record.header, packet.data(), sizeof(record.header));
  const auto data = packet.subspan(header_size);
  record.data.assign(data.begin(), data.begin() + std::min<std::size_t>(record.header.data_len, data.size()));
  return record;
}

// Returns the bytes of words such as "01000401 15160500".
std::vector<u8> bytes_in(std::istream& words) {
  std::vector<u8> bytes;
  for (std::string word; words >> word;) {
    for (std::size_t i = 0; i + 1 < word.size(); i += 2)
      bytes.push_back(static_cast<u8>(std::stoul(word.substr(i, 2), nullptr, 16)));
  }
  return bytes;
}

// Returns the record of a line of usbmon's text about a control transfer, such as "ffff9a3c 1234567 S
// Ci:1:002:0 s a1 87 0100 0001 001a 26 <" or "ffff9a3c 1234890 C Ci:1:002:0 0 26 = 01000401 15160500 ...".
std::optional<ReadRecord> record_in(const std::string& line) {
  std::istringstream words(line);
  ReadRecord record{};
  pcap_usb_header& header = record.header;
  u64 microseconds;
  char event, data_mark;
  std::string endpoint;
  words >> std::hex >> header.id >> std::dec >> microseconds >> event >> endpoint;
  if (!words || !endpoint.starts_with('C')) return std::nullopt;
  header.event_type = static_cast<u8>(event);
  header.transfer_type = URB_CONTROL;
  header.ts_sec = static_cast<i64>(microseconds / 1'000'000);
  header.ts_usec = static_cast<i32>(microseconds % 1'000'000);
  if (event == URB_SUBMIT) {
    int type, request, value, index, length;
    if (!(words >> event >> std::hex >> type >> request >> value >> index >> length >> std::dec))
      return std::nullopt;
    const usb_ctrlrequest setup{.bRequestType = static_cast<u8>(type),
                                .bRequest = static_cast<u8>(request),
                                .wValue = static_cast<u16>(value),
                                .wIndex = static_cast<u16>(index),
                                .wLength = static_cast<u16>(length)};
    std::memcpy(&header.setup, &setup, sizeof(setup));
  } else if (!(words >> header.status)) {
    return std::nullopt;
  }
  words >> header.urb_len;
  if (words >> data_mark && data_mark == '=') record.data = bytes_in(words);
  return record;
}

double milliseconds(const pcap_usb_header& header) {
  return static_cast<double>(header.ts_sec) * 1e3 + header.ts_usec / 1e3;
}

bool is_class_request(const usb_ctrlrequest& setup) {
  const int type = setup.bRequestType & ~USB_DIR_IN, interface = setup.wIndex & 0xFF;
  return type == (USB_TYPE_CLASS | USB_RECIP_INTERFACE) && request_name(setup.bRequest) &&
         interface <= kVideoStreamingInterface;
}

// Puts submitted and completed records together.
class Reader {
 public:
  void add(const ReadRecord& record);
  std::vector<Exchange> exchanges() && { return std::move(done_); }

 private:
  std::map<u64, Exchange> open_;  // by the number of the transfer
  std::vector<Exchange> done_;
  std::optional<double> first_ms_;
};

void Reader::add(const ReadRecord& record) {
  const pcap_usb_header& header = record.header;
  if (header.transfer_type != URB_CONTROL) return;
  const bool cut = !record.data.empty() && record.data.size() < header.urb_len;
  if (header.event_type == URB_SUBMIT) {
    Exchange exchange{.at_ms = milliseconds(header), .data = record.data};
    std::memcpy(&exchange.setup, &header.setup, sizeof(exchange.setup));
    if (header.setup_flag == 0 && !cut && is_class_request(exchange.setup))
      open_[header.id] = std::move(exchange);
    return;
  }
  const auto found = open_.find(header.id);
  if (found == open_.end()) return;
  Exchange exchange = std::move(found->second);
  open_.erase(found);
  if (cut) return;
  if (exchange.setup.bRequestType & USB_DIR_IN) exchange.data = record.data;
  exchange.stalled = header.status == -EPIPE;
  exchange.timed_out = header.status && !exchange.stalled;
  exchange.answer_ms = milliseconds(header) - exchange.at_ms;
  if (!first_ms_) first_ms_ = exchange.at_ms;
  exchange.at_ms -= *first_ms_;
  done_.push_back(std::move(exchange));
}

// Feeds the reader. Returns false if the file is damaged, or no recording of usbmon.
bool read_packets(pcap_t& capture, Reader& reader) {
  const int link = pcap_datalink(&capture);
  if (link != DLT_USB_LINUX && link != DLT_USB_LINUX_MMAPPED) {
    std::snprintf(pcap_geterr(&capture), PCAP_ERRBUF_SIZE, "recorded on something else than usbmon");
    return false;
  }
  const std::size_t header =
      link == DLT_USB_LINUX ? sizeof(pcap_usb_header) : sizeof(pcap_usb_header_mmapped);
  pcap_pkthdr* place;
  const u_char* bytes;
  int result;
  while ((result = pcap_next_ex(&capture, &place, &bytes)) == 1) {
    if (const auto record = record_in({bytes, place->caplen}, header)) reader.add(*record);
  }
  return result == PCAP_ERROR_BREAK;
}

}  // namespace

std::optional<std::vector<Exchange>> read_recording(const std::string& path, std::string& error) {
  Reader reader;
  std::ifstream text(path);
  std::string line;
  if (std::getline(text, line) && record_in(line)) {
    do {
      if (const auto record = record_in(line)) reader.add(*record);
    } while (std::getline(text, line));
    return std::move(reader).exchanges();
  }
  char problem[PCAP_ERRBUF_SIZE] = "";
  const Pcap capture(pcap_open_offline(path.c_str(), problem), pcap_close);
  if (!capture) return error = problem, std::nullopt;
  if (!read_packets(*capture, reader)) return error = path + ": " + pcap_geterr(capture.get()), std::nullopt;
  return std::move(reader).exchanges();
}

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
