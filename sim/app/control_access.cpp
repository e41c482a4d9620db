#include "sim/app/control_access.h"

#include <linux/usb/video.h>

#include <algorithm>
#include <limits>

namespace sim {

Range range_of(const HostControl& control) {
  const i64 limit = std::numeric_limits<i32>::max();
  const i64 most = control.value == HostValue::kMotion ? 255 : (i64{1} << 8 * control.size) - 1;
  const i64 least = control.value == HostValue::kUnsigned ? 0 : -most;
  return {static_cast<i32>(std::max(least, -limit)), static_cast<i32>(std::min(most, limit))};
}

// The camera stalls no request. What it does not give is left over from the request before, so this asks
// twice, after two requests that fill its answer buffer with different bytes.
std::optional<i32> get_limit(Conversation& host, const HostControl& control, u8 request) {
  const HostControl& filler = *find_host_control("pan_absolute");
  get_control(host, filler, UVC_GET_MIN);
  const auto once = get_control(host, control, request);
  get_control(host, filler, UVC_GET_DEF);
  const auto again = get_control(host, control, request);
  return once == again ? once : std::nullopt;
}

Reading read_back(Conversation& host, const HostControl& control, i32 wanted) {
  const auto now = get_control(host, control, UVC_GET_CUR);
  if (!now) return {now, "the camera does not answer"};
  if (*now == wanted) return {now, ""};
  const auto least = get_limit(host, control, UVC_GET_MIN), most = get_limit(host, control, UVC_GET_MAX);
  if (!least || !most || (wanted >= *least && wanted <= *most)) return {now, ""};
  return {now, std::to_string(wanted) + " is outside " + std::to_string(*least) + " to " +
                   std::to_string(*most) + "; it reads " + std::to_string(*now)};
}

u16 answer_length(Conversation& host, u8 entity, u8 selector, u8 request) {
  if (request == UVC_GET_LEN) return 2;
  if (request == UVC_GET_INFO) return 1;
  const auto answer = get_control(host, entity, selector, UVC_GET_LEN, 2).data;
  return answer.size() < 2 ? u16{0} : std::min(get_le16(answer.data()), kLongestData);
}

}  // namespace sim
