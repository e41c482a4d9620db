// What the tests of the USB side share: a run with the gadget node opened, the host's end of it, and the
// message queue on which the encoder settings leave. Everything happens turn by turn, in the
// thread of the test.
#pragma once

#include <gtest/gtest.h>
#include <sys/msg.h>

#include <cstdio>
#include <cstring>
#include <span>
#include <string>
#include <vector>

#include "ipc/VeltoDrvMsg.h"
#include "ipc/msg_records.h"
#include "platform/sys.h"
#include "sim/seam/node.h"
#include "sim/seam/run.h"
#include "uvc/uvc_class.h"
#include "uvc/uvc_gadget_device.h"
#include "uvc/uvc_state.h"

inline std::string hex(std::span<const u8> bytes) {
  std::string text;
  for (const u8 byte : bytes) {
    char digits[4];
    std::snprintf(digits, sizeof(digits), "%s%02x", text.empty() ? "" : " ", byte);
    text += digits;
  }
  return text;
}

class UvcTest : public testing::Test {
 protected:
  void SetUp() override {
    sys::system("insmod /opt/vcam/ko/extdrv/g_webcam.ko");
    ASSERT_EQ(VeltoDrvInit(kVeltoProcess), 0);
    ASSERT_EQ(uvc_device_open(), 0);
    ASSERT_EQ(uvc_event_subscribe(loop), 0);
  }

  void raise(UvcEventType type, const void* data = nullptr, std::size_t size = 0) {
    v4l2_event event = {};
    event.type = type;
    if (data) std::memcpy(event.u.data, data, size);
    host.raise(event);
    uvc_event_turn(loop);
  }

  /// One SETUP event and its answer's bytes.
  std::vector<u8> setup(u8 request, u8 selector, u8 entity, u8 interface, u16 length) {
    const u8 packet[8] = {
        0xA1, request, 0, selector, interface, entity, static_cast<u8>(length), static_cast<u8>(length >> 8)};
    raise(UVC_EVENT_SETUP, packet, sizeof(packet));
    const auto response = host.next_response(std::chrono::milliseconds(100));
    if (!response) {
      ADD_FAILURE() << "request " << int(request) << " was not answered";
      return {};
    }
    return {response->data, response->data + response->length};
  }

  void data(std::span<const u8> bytes) {
    UvcRequestData record = {.length = static_cast<i32>(bytes.size()), .data = {}};
    std::memcpy(record.data, bytes.data(), std::min<std::size_t>(bytes.size(), kUvcRequestDataSize));
    raise(UVC_EVENT_DATA, &record, sizeof(record));
  }

  std::vector<u8> get_streaming(u8 request, u8 selector, u16 length) {
    return setup(request, selector, 0, 1, length);
  }

  void set_streaming(u8 selector, std::span<const u8> bytes) {
    setup(UVC_SET_CUR, selector, 0, 1, static_cast<u16>(bytes.size()));
    data(bytes);
  }

  /// A probe or commit block as a host sends it.
  static std::vector<u8> block(u8 format, u8 frame, u32 interval, u16 quality = 0) {
    std::vector<u8> bytes(26, 0xEE);
    bytes[2] = format;
    bytes[3] = frame;
    put_le32(&bytes[4], interval);
    put_le16(&bytes[12], quality);
    return bytes;
  }

  /// The words of every command 10 since the last call, a line each: header, running, then the record.
  std::string sent_settings() {
    const int queue = msgget(sim::run_key(kVeltoMsgKey), 0);
    VeltoMsgBuf message;
    std::string lines;
    while (msgrcv(queue, &message, kVeltoMsgPayload, 0, IPC_NOWAIT) >= 0) {
      EXPECT_EQ(message.cmd, kVeltoEncoderSettings);
      EXPECT_EQ(message.dest, kServerMsgType);
      for (int i = 0; i < 13; ++i) {
        lines += std::to_string(static_cast<i32>(get_le32(message.payload + kVeltoWords + 4 * i)));
        lines += i < 12 ? " " : "\n";
      }
    }
    return lines;
  }

  sim::Run run;
  sim::NodeHost host;
  UvcEventLoop loop = {.device = &uvc_video_fd, .request = {}};
};
