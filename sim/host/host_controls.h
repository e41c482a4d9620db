// The camera's controls by the names that v4l2-ctl gives them: where each value lies in the class requests
// of the camera terminal and the processing unit. The extension unit has no names; it is reached by selector.
#pragma once

#include <optional>
#include <span>
#include <string_view>

#include "platform/uvc_units.h"
#include "sim/host/conversation.h"

namespace sim {

constexpr u8 kVideoControlInterface = 0, kVideoStreamingInterface = 1;

/// How a value lies in its control's bytes.
enum class HostValue : u8 {
  kUnsigned,
  kSigned,
  kMotion,  ///< a direction byte (0, 1, 255) at `offset` and a speed at `speed_offset`: one signed number
};

struct HostControl {
  const char* name;  ///< such as "brightness"
  u8 entity, selector;
  u8 length;  ///< bytes of the whole control; other values in it stay as they are when this one is set
  u8 offset = 0, size = 0;  ///< of the value, in bytes; a motion's are 2
  HostValue value = HostValue::kUnsigned;
  u8 speed_offset = 0;
};

/// In the order of entities and selectors.
std::span<const HostControl> host_controls();
const HostControl* find_host_control(std::string_view name);  ///< null: there is none

/// The value in what a GET request other than GET_LEN and GET_INFO answered, or a SET_CUR carries; nothing
/// when the bytes are too few. A motion's GET_MIN is the fastest way back: its speed, negative.
std::optional<i32> value_in(const HostControl& control, u8 request, std::span<const u8> data);

/// A class request to the video-control interface, sent through the conversation.
ControlAnswer get_control(Conversation& host, u8 entity, u8 selector, u8 request, u16 length);
ControlAnswer set_control(Conversation& host, u8 entity, u8 selector, std::span<const u8> data);

/// By name. `request` is UVC_GET_CUR, _MIN, _MAX, _RES or _DEF; nothing when the camera stalls or answers too
/// few bytes. A set reads the control first when it carries other values as well; false when it stalls.
std::optional<i32> get_control(Conversation& host, const HostControl& control, u8 request);
bool set_control(Conversation& host, const HostControl& control, i32 value);

}  // namespace sim
