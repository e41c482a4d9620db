// The camera's controls by the names that v4l2-ctl gives them: where each value is in the class requests of
// the camera terminal and the processing unit. The extension unit's controls have no names and are
// addressed by selector.
#pragma once

#include <optional>
#include <span>
#include <string_view>

#include "platform/uvc_units.h"
#include "sim/host/conversation.h"

namespace sim {

constexpr u8 kVideoControlInterface = 0, kVideoStreamingInterface = 1;

/// How a value is stored in its control's bytes.
enum class HostValue : u8 {
  kUnsigned,
  kSigned,
  kMotion,  ///< a direction byte (0, 1, 255) at `offset` and a speed at `speed_offset`: one signed number
};

struct HostControl {
  const char* name;  ///< such as "brightness"
  u8 entity, selector;
  /// Bytes of the whole control. Its other values stay as they are when this one is set.
  u8 length;
  u8 offset = 0, size = 0;  ///< of the value, in bytes; a motion has 2
  HostValue value = HostValue::kUnsigned;
  u8 speed_offset = 0;
};

/// Returns all controls in the order of entities and selectors.
std::span<const HostControl> host_controls();
const HostControl* find_host_control(std::string_view name);  ///< returns null if there is none

/// Returns the value in the answer to a GET request other than GET_LEN and GET_INFO, or in the data
/// of a SET_CUR, or nothing if there are too few bytes. A motion's GET_MIN is the fastest way back:
/// its speed, negative.
std::optional<i32> value_in(const HostControl& control, u8 request, std::span<const u8> data);

/// Send a class request to the video-control interface through the conversation.
ControlAnswer get_control(Conversation& host, u8 entity, u8 selector, u8 request, u16 length);
ControlAnswer set_control(Conversation& host, u8 entity, u8 selector, std::span<const u8> data);

/// Get and set a control by name. `request` is UVC_GET_CUR, _MIN, _MAX, _RES or _DEF. The get returns nothing
/// if the camera stalls or answers too few bytes. The set reads the control first if it carries other values
/// as well, and returns false if it stalls.
std::optional<i32> get_control(Conversation& host, const HostControl& control, u8 request);
bool set_control(Conversation& host, const HostControl& control, i32 value);

}  // namespace sim
