// The messages of USB/IP, version 1.1.1, in both of its phases: a client chooses a device, then its kernel
// and the device exchange transfers (URBs). Linux describes the protocol in
// Documentation/usb/usbip_protocol.rst; all numbers are big-endian but those of a SETUP.
#pragma once

#include <linux/usb/ch9.h>

#include <optional>
#include <span>
#include <string_view>
#include <vector>

#include "common/bytes.h"

namespace sim {

constexpr std::size_t kUrbHeadSize = 48, kIsoPacketSize = 16;
/// The most that is taken from a host: bytes that a transfer brings or has room for, and packets of an
/// isochronous one (Linux's own limit).
constexpr u32 kMostBytesOut = 0xFFFF, kMostBytesIn = 1 << 20, kMostIsoPackets = 1024;
constexpr u32 kSpeedHigh = 3;
constexpr u32 kUsbipDevice = 0x00010002;  ///< bus 1, device 2

struct IsoPacket {
  u32 offset = 0, length = 0;  ///< of its place in the transfer's buffer
  u32 actual = 0;              ///< bytes that it has
};

/// What the host asks for: a transfer, or that one be taken back.
struct UrbRequest {
  u32 number = 0;                   ///< of this request
  std::optional<u32> taken_back{};  ///< number of the transfer to take back; all below is 0 then
  bool in = false;                  ///< from the device to the host
  u32 endpoint = 0;
  u32 length = 0;   ///< of the transfer's buffer
  u32 packets = 0;  ///< 0 if it is not isochronous
  u32 start_frame = 0;
  usb_ctrlrequest setup{};
  /// Bytes that follow the head: the data of an OUT transfer, then the packets.
  std::size_t data_size() const { return in ? 0 : length; }
  std::size_t packets_size() const { return packets * kIsoPacketSize; }
};
/// Returns nothing if that is no request, or one beyond the limits.
std::optional<UrbRequest> parse_urb_request(std::span<const u8, kUrbHeadSize> head);
/// Returns nothing if a packet has no place in the transfer's buffer.
std::optional<std::vector<IsoPacket>> parse_iso_packets(const UrbRequest& request, std::span<const u8> bytes);

/// The answers. `status` is 0 or a negative errno. `data` of an isochronous transfer is what its packets
/// have, one after the other without the gaps.
std::vector<u8> transfer_answer(const UrbRequest& request, i32 status, std::span<const u8> data,
                                std::span<const IsoPacket> packets = {});
std::vector<u8> taken_back_answer(u32 number, i32 status);

/// What a client may ask before its kernel takes over.
enum class ClientWish : u16 { kList = 0x8005, kImport = 0x8003 };
constexpr std::size_t kWishSize = 8, kBusIdSize = 32;
constexpr std::string_view kBusId = "1-1";  ///< of the one device
/// Returns nothing for another version of the protocol or another wish.
std::optional<ClientWish> parse_wish(std::span<const u8, kWishSize> bytes);
/// `available`: the device can be imported now. A refused import has no device in its answer.
std::vector<u8> list_answer(bool available);
std::vector<u8> import_answer(bool granted);

}  // namespace sim
