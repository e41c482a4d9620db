// The UVC gadget driver's events and response record, as the Linux kernel's interface defines them. The
// board's kernel keeps them in a header of the driver, which programs cannot include.
#pragma once

#include <linux/videodev2.h>

#include "common/bytes.h"

enum UvcEventType : u32 {
  UVC_EVENT_CONNECT = V4L2_EVENT_PRIVATE_START + 0,
  UVC_EVENT_DISCONNECT = V4L2_EVENT_PRIVATE_START + 1,
  UVC_EVENT_STREAMON = V4L2_EVENT_PRIVATE_START + 2,
  UVC_EVENT_STREAMOFF = V4L2_EVENT_PRIVATE_START + 3,
  UVC_EVENT_SETUP = V4L2_EVENT_PRIVATE_START + 4,  ///< event data: the 8-byte setup packet
  UVC_EVENT_DATA = V4L2_EVENT_PRIVATE_START + 5,   ///< event data: a UvcRequestData
};

constexpr i32 kUvcRequestDataSize = 60;

/// What a DATA event brings and UVCIOC_SEND_RESPONSE takes.
struct UvcRequestData {
  i32 length;  ///< bytes of data; negative stalls the request
  u8 data[kUvcRequestDataSize];
};
static_assert(sizeof(UvcRequestData) == 64);

constexpr unsigned long UVCIOC_SEND_RESPONSE = _IOW('U', 1, UvcRequestData);

/// A request of the camera's own gadget driver, which takes the address of the buffer type. Other
/// drivers reject it.
constexpr unsigned long kUvcPrivateStart = 0x12345678;

#if defined(__arm__)
static_assert(sizeof(v4l2_buffer) == 68 && sizeof(v4l2_event) == 128,
              "32-bit time_t needed: the board's kernel knows no other");
#endif
