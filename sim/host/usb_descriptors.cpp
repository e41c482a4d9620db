#include "sim/host/usb_descriptors.h"

#include <linux/usb/ch9.h>
#include <linux/usb/video.h>
#include <linux/videodev2.h>

#include <bit>
#include <iterator>
#include <span>

#include "sim/host/host_controls.h"
#include "sim/host/usb_host.h"

namespace sim {

namespace {

// A number of a descriptor, by the prefixes that USB's field names have.
struct Field {
  u32 value;
  u8 bytes;
};
constexpr Field b(u32 value) { return {value, 1}; }
constexpr Field w(u32 value) { return {value, 2}; }
constexpr Field dw(u32 value) { return {value, 4}; }

using Fields = std::vector<Field>;
using Bytes = std::vector<u8>;

void append(Bytes& to, const Bytes& more) { to.insert(to.end(), more.begin(), more.end()); }

void append(Bytes& to, Field field) {
  for (u8 i = 0; i < field.bytes; ++i) to.push_back(static_cast<u8>(field.value >> 8 * i));
}

// A descriptor: its length, its type and what follows.
Bytes descriptor(u8 type, const Fields& fields) {
  Bytes bytes{0, type};
  for (const Field& field : fields) append(bytes, field);
  bytes[0] = static_cast<u8>(bytes.size());
  return bytes;
}

Fields operator+(Fields left, const Fields& right) {
  left.insert(left.end(), right.begin(), right.end());
  return left;
}

constexpr u8 kOutputTerminal = 4;
constexpr u8 kStreamEndpoint = USB_DIR_IN | 1;
constexpr u32 kThreeTransactions = 2 << 11;  //< wMaxPacketSize: a microframe's additional ones

constexpr u32 kIntervals[] = {166666, 333333, 400000, 666666};  //< of 100 ns
constexpr u32 kDefaultInterval = kIntervals[1];

struct Layout {
  StreamFormat format;
  u8 subtype;  //< the frames' is the next number
  u32 fourcc;
  u8 first_interval = 0;
};
constexpr Layout kLayouts[] = {
    {StreamFormat::kMjpeg, UVC_VS_FORMAT_MJPEG, V4L2_PIX_FMT_MJPEG},
    {StreamFormat::kH264, UVC_VS_FORMAT_FRAME_BASED, V4L2_PIX_FMT_H264},
    {StreamFormat::kYuy2, UVC_VS_FORMAT_UNCOMPRESSED, v4l2_fourcc('Y', 'U', 'Y', '2'), 1},
    {StreamFormat::kH265, UVC_VS_FORMAT_FRAME_BASED, v4l2_fourcc('H', '2', '6', '5')},
};

Bytes format_descriptor(const Layout& layout) {
  const auto frames = host_format(layout.format).sizes.size();
  const Fields head = {b(layout.subtype), b(static_cast<u32>(layout.format)), b(static_cast<u32>(frames))};
  const Fields tail = {b(1), b(0), b(0), b(0), b(0)};  // default frame, aspect ratio, interlacing, copies
  if (layout.subtype == UVC_VS_FORMAT_MJPEG)
    return descriptor(USB_DT_CS_INTERFACE, head + Fields{b(0)} + tail);
  const Fields guid = {dw(layout.fourcc), dw(0x00100000), dw(0xAA000080), dw(0x719B3800)};
  Fields fields = head + guid + Fields{b(16)} + tail;
  if (layout.subtype == UVC_VS_FORMAT_FRAME_BASED) fields.push_back(b(1));  // frames vary in size
  return descriptor(USB_DT_CS_INTERFACE, fields);
}

Bytes frame_descriptor(const Layout& layout, u32 index, FrameSize size) {
  const auto intervals = std::span(kIntervals).subspan(layout.first_interval);
  const u32 frame_bytes = size.width * size.height * 2;
  const u32 slowest = frame_bytes * 8 * 5;  // bits a second at 5 frames
  Fields fields = {b(layout.subtype + 1u), b(index),    b(0),           w(size.width),
                   w(size.height),         dw(slowest), dw(slowest * 6)};
  const Field count = b(static_cast<u32>(intervals.size()));
  if (layout.subtype == UVC_VS_FORMAT_FRAME_BASED)
    fields = fields + Fields{dw(kDefaultInterval), count, dw(0)};  // bytes a line: they vary
  else
    fields = fields + Fields{dw(frame_bytes), dw(kDefaultInterval), count};
  for (const u32 interval : intervals) fields.push_back(dw(interval));
  return descriptor(USB_DT_CS_INTERFACE, fields);
}

Bytes units() {
  Bytes bytes = descriptor(USB_DT_CS_INTERFACE,  // camera terminal: no lens data, 3 bytes of controls
                           {b(UVC_VC_INPUT_TERMINAL), b(kCameraTerminal), w(UVC_ITT_CAMERA), b(0), b(0), w(0),
                            w(0), w(0), b(3), w(kCameraTerminalBits), b(0)});
  append(bytes, descriptor(USB_DT_CS_INTERFACE, {b(UVC_VC_PROCESSING_UNIT),
                                                 b(kProcessingUnit),
                                                 b(kCameraTerminal),
                                                 w(0),
                                                 b(kProcessingUnitBitsSize),
                                                 {kProcessingUnitBits, kProcessingUnitBitsSize},
                                                 b(0)}));
  Fields extension = {b(UVC_VC_EXTENSION_UNIT), b(kExtensionUnit)};
  for (const u8 byte : kExtensionUnitGuid) extension.push_back(b(byte));
  append(bytes, descriptor(USB_DT_CS_INTERFACE,
                           extension + Fields{b(static_cast<u32>(std::popcount(u32{kExtensionUnitBits}))),
                                              b(1), b(kProcessingUnit), b(4), dw(kExtensionUnitBits), b(0)}));
  append(bytes, descriptor(USB_DT_CS_INTERFACE, {b(UVC_VC_OUTPUT_TERMINAL), b(kOutputTerminal),
                                                 w(UVC_TT_STREAMING), b(0), b(kExtensionUnit), b(0)}));
  return bytes;
}

Bytes formats() {
  Bytes bytes;
  for (const Layout& layout : kLayouts) {
    append(bytes, format_descriptor(layout));
    u32 index = 0;
    for (const FrameSize size : host_format(layout.format).sizes)
      append(bytes, frame_descriptor(layout, ++index, size));
    append(bytes, descriptor(USB_DT_CS_INTERFACE, {b(UVC_VS_COLORFORMAT), b(1), b(1), b(4)}));
  }
  return bytes;
}

Bytes interface(u8 number, u8 alternate, u8 endpoints, u8 subclass) {
  return descriptor(USB_DT_INTERFACE, {b(number), b(alternate), b(endpoints), b(USB_CLASS_VIDEO), b(subclass),
                                       b(UVC_PC_PROTOCOL_UNDEFINED), b(0)});
}

Bytes control_interface() {
  const Bytes behind = units();
  const u32 total = 13 + static_cast<u32>(behind.size());
  Bytes bytes = interface(kVideoControlInterface, 0, 0, UVC_SC_VIDEOCONTROL);
  append(bytes, descriptor(USB_DT_CS_INTERFACE, {b(UVC_VC_HEADER), w(0x0100), w(total), dw(48'000'000), b(1),
                                                 b(kVideoStreamingInterface)}));
  append(bytes, behind);
  return bytes;
}

Bytes streaming_interface() {
  constexpr u32 kFormatCount = std::size(kLayouts);
  const Bytes behind = formats();
  const u32 total = 13 + kFormatCount + static_cast<u32>(behind.size());
  const Fields header = {b(UVC_VS_INPUT_HEADER), b(kFormatCount), w(total), b(kStreamEndpoint)};
  const Fields rest = {b(0), b(kOutputTerminal), b(0), b(0), b(0), b(1)};
  Bytes bytes = interface(kVideoStreamingInterface, 0, 0, UVC_SC_VIDEOSTREAMING);
  append(bytes, descriptor(USB_DT_CS_INTERFACE, header + rest + Fields(kFormatCount, b(0))));
  append(bytes, behind);
  append(bytes, interface(kVideoStreamingInterface, 1, 1, UVC_SC_VIDEOSTREAMING));
  append(bytes,
         descriptor(USB_DT_ENDPOINT, {b(kStreamEndpoint), b(USB_ENDPOINT_XFER_ISOC | USB_ENDPOINT_SYNC_ASYNC),
                                      w(kThreeTransactions | 1024), b(1)}));
  return bytes;
}

}  // namespace

std::vector<u8> device_descriptor() {
  return descriptor(USB_DT_DEVICE, {w(0x0200), b(USB_CLASS_MISC), b(2), b(1), b(64), w(0x1D6B), w(0x0102),
                                    w(0x0010), b(0), b(0), b(0), b(1)});
}

std::vector<u8> configuration_descriptor() {
  Bytes behind =
      descriptor(USB_DT_INTERFACE_ASSOCIATION, {b(kVideoControlInterface), b(2), b(USB_CLASS_VIDEO),
                                                b(UVC_SC_VIDEO_INTERFACE_COLLECTION), b(0), b(0)});
  append(behind, control_interface());
  append(behind, streaming_interface());
  const u32 total = USB_DT_CONFIG_SIZE + static_cast<u32>(behind.size());
  Bytes bytes = descriptor(
      USB_DT_CONFIG, {w(total), b(2), b(1), b(0), b(USB_CONFIG_ATT_ONE | USB_CONFIG_ATT_SELFPOWER), b(1)});
  append(bytes, behind);
  return bytes;
}

}  // namespace sim
