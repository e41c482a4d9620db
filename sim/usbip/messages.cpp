#include "sim/usbip/messages.h"

#include <linux/usb/video.h>

#include <cstring>

#include "sim/host/usb_descriptors.h"

namespace sim {

namespace {

using Bytes = std::vector<u8>;

enum Command : u32 { kSubmit = 1, kUnlink = 2, kSubmitAnswer = 3, kUnlinkAnswer = 4 };
constexpr u16 kVersion = 0x0111;
constexpr u16 kListAnswer = 0x0005, kImportAnswer = 0x0003;
constexpr u32 kNotIsochronous = 0xFFFFFFFF;  //< in a transfer's number of packets; some hosts say 0
constexpr std::size_t kPathSize = 256;

u32 be32(std::span<const u8> bytes, std::size_t word) {
  const u8* const at = &bytes[word * 4];
  return u32{at[0]} << 24 | u32{at[1]} << 16 | u32{at[2]} << 8 | at[3];
}

void append16(Bytes& to, u32 value) {
  to.push_back(static_cast<u8>(value >> 8));
  to.push_back(static_cast<u8>(value));
}

void append32(Bytes& to, u32 value) {
  append16(to, value >> 16);
  append16(to, value);
}

void append_text(Bytes& to, std::string_view text, std::size_t size) {
  to.insert(to.end(), text.begin(), text.end());
  to.resize(to.size() + size - text.size());
}

// Of an answer; those of requests hold what only the host knows.
Bytes head(Command command, u32 number, i32 status) {
  Bytes bytes;
  bytes.reserve(kUrbHeadSize);
  for (const u32 word : {u32{command}, number, 0u, 0u, 0u, static_cast<u32>(status)}) append32(bytes, word);
  return bytes;
}

// The device as both answers of the first phase tell it.
void append_device(Bytes& to) {
  const Bytes device = device_descriptor(), configuration = configuration_descriptor();
  append_text(to, "/sys/devices/camera_sim/usb1/1-1", kPathSize);
  append_text(to, kBusId, kBusIdSize);
  for (const u32 word : {kUsbipDevice >> 16, kUsbipDevice & 0xFFFF, kSpeedHigh}) append32(to, word);
  for (const std::size_t field : {8, 10, 12})
    append16(to, get_le16(&device[field]));                               // vendor, product, release
  for (const std::size_t field : {4, 5, 6}) to.push_back(device[field]);  // class
  to.push_back(configuration[5]);                                         // its number
  to.push_back(device[17]);                                               // how many there are
  to.push_back(configuration[4]);                                         // interfaces
}

void append_interfaces(Bytes& to) {
  for (const u8 subclass : {u8{UVC_SC_VIDEOCONTROL}, u8{UVC_SC_VIDEOSTREAMING}}) {
    for (const u8 byte : {u8{USB_CLASS_VIDEO}, subclass, u8{UVC_PC_PROTOCOL_UNDEFINED}, u8{0}})
      to.push_back(byte);
  }
}

Bytes wish_answer(u16 code, bool granted) {
  Bytes bytes;
  append16(bytes, kVersion);
  append16(bytes, code);
  append32(bytes, granted ? 0 : 1);
  return bytes;
}

}  // namespace

std::optional<UrbRequest> parse_urb_request(std::span<const u8, kUrbHeadSize> head) {
  const u32 command = be32(head, 0);
  UrbRequest request{.number = be32(head, 1)};
  if (command == kUnlink) {
    request.taken_back = be32(head, 5);
    return request;
  }
  const u32 packets = be32(head, 8);
  request.in = be32(head, 3) != 0;
  request.endpoint = be32(head, 4);
  request.length = be32(head, 6);
  request.start_frame = be32(head, 7);
  request.packets = packets == kNotIsochronous ? 0 : packets;
  std::memcpy(&request.setup, &head[40], sizeof(request.setup));
  const bool valid = command == kSubmit && request.length <= (request.in ? kMostBytesIn : kMostBytesOut) &&
                     request.packets <= kMostIsoPackets;
  return valid ? std::optional(request) : std::nullopt;
}

std::optional<std::vector<IsoPacket>> parse_iso_packets(const UrbRequest& request,
                                                        std::span<const u8> bytes) {
  std::vector<IsoPacket> packets;
  for (; bytes.size() >= kIsoPacketSize; bytes = bytes.subspan(kIsoPacketSize)) {
    const IsoPacket packet{.offset = be32(bytes, 0), .length = be32(bytes, 1)};
    if (u64{packet.offset} + packet.length > request.length) return std::nullopt;
    packets.push_back(packet);
  }
  return packets;
}

Bytes transfer_answer(const UrbRequest& request, i32 status, std::span<const u8> data,
                      std::span<const IsoPacket> packets) {
  const std::size_t moved = request.in ? data.size() : status == 0 ? request.length : 0;
  Bytes bytes = head(kSubmitAnswer, request.number, status);
  append32(bytes, static_cast<u32>(moved));
  append32(bytes, request.start_frame);
  append32(bytes, static_cast<u32>(packets.size()));
  bytes.resize(kUrbHeadSize);
  bytes.insert(bytes.end(), data.begin(), data.end());
  for (const IsoPacket& packet : packets) {
    for (const u32 word : {packet.offset, packet.length, packet.actual, 0u}) append32(bytes, word);
  }
  return bytes;
}

Bytes taken_back_answer(u32 number, i32 status) {
  Bytes bytes = head(kUnlinkAnswer, number, status);
  bytes.resize(kUrbHeadSize);
  return bytes;
}

std::optional<ClientWish> parse_wish(std::span<const u8, kWishSize> bytes) {
  const u32 word = be32(bytes, 0);
  const auto wish = static_cast<ClientWish>(word & 0xFFFF);
  const bool known = wish == ClientWish::kList || wish == ClientWish::kImport;
  return word >> 16 == kVersion && known ? std::optional(wish) : std::nullopt;
}

Bytes list_answer(bool available) {
  Bytes bytes = wish_answer(kListAnswer, true);
  append32(bytes, available ? 1 : 0);
  if (!available) return bytes;
  append_device(bytes);
  append_interfaces(bytes);
  return bytes;
}

Bytes import_answer(bool granted) {
  Bytes bytes = wish_answer(kImportAnswer, granted);
  if (granted) append_device(bytes);
  return bytes;
}

}  // namespace sim
