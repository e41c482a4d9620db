#include "uvc/uvc_class_control.h"

#include <cstring>

#include "support/print.h"
#include "uvc/uvc_class_camera.h"
#include "uvc/uvc_class_streaming.h"
#include "uvc/uvc_state.h"
#include "uvc/uvc_vendor.h"

constexpr char kPrintFile[] = "uvc_class.c";

namespace {

constexpr const Unit* kUnits[] = {&uvc_camera_terminal, &uvc_processing_unit, &uvc_extension_unit,
                                  &uvc_streaming_interface};

const Unit* find_unit(const UvcRequestContext& request) {
  for (const Unit* unit : kUnits) {
    if (unit->interface != request.interface()) continue;
    if (unit->entity == kAnyEntity || unit->entity == request.entity()) return unit;
  }
  return nullptr;
}

const Control& find_control(const Unit& unit, u8 selector) {
  for (const Control& control : unit.controls) {
    if (control.selector == selector) return control;
  }
  return unit.other;
}

u32 store(UvcStatus status) { return uvc_request_error_code = status; }

UvcStatus status_without_unit(const UvcRequestContext& request) {
  return request.interface() == kVideoControlInterface ? kInvalidUnit : kWrongInterface;
}

void say(const Reply& reply, u8 selector) {
  if (reply.names_selector)
    PRINT_INFO("%s %x\n", reply.message, selector);
  else if (reply.message)
    PRINT_INFO("%s", reply.message);
}

u32 give(const Reply& reply, u8 selector) {
  say(reply, selector);
  std::memcpy(uvc_resp_buf, reply.live ? reply.live : reply.bytes, reply.count);
  return reply.keeps_status ? uvc_request_error_code : store(reply.status);
}

u32 answer(const UvcRequestContext& request, Reply Control::*member) {
  const Unit* unit = find_unit(request);
  if (!unit) return store(status_without_unit(request));
  return give(find_control(*unit, request.selector()).*member, request.selector());
}

void clear_missing_data(const UvcRequestContext& request) {
  const std::size_t sent = request.wLength & 0xFF;
  if (sent < sizeof(Reply::bytes)) std::memset(uvc_resp_buf + sent, 0, sizeof(Reply::bytes) - sent);
}

}  // namespace

std::span<const Unit* const> uvc_units() { return kUnits; }

u32 uvc_getmin(UvcRequestContext* request) { return answer(*request, &Control::min); }
u32 uvc_getmax(UvcRequestContext* request) { return answer(*request, &Control::max); }
u32 uvc_getres(UvcRequestContext* request) { return answer(*request, &Control::res); }
u32 uvc_getinfo(UvcRequestContext* request) { return answer(*request, &Control::info); }
u32 uvc_getdef(UvcRequestContext* request) { return answer(*request, &Control::def); }

// Deliberate: on an interface other than 0 and 1, GET_LEN is the only request that ends without an error.
u32 uvc_getlen(UvcRequestContext* request) {
  if (request->interface() > kVideoStreamingInterface) return store(kNoError);
  return answer(*request, &Control::len);
}

u32 uvc_getcur(UvcRequestContext* request) {
  const Unit* unit = find_unit(*request);
  if (!unit) return store(status_without_unit(*request));
  const Control& control = find_control(*unit, request->selector());
  return control.get_cur ? store(control.get_cur(control)) : give(control.cur, request->selector());
}

u32 uvc_setcur(UvcRequestContext* request) {
  const Unit* unit = find_unit(*request);
  if (!unit) return store(status_without_unit(*request));
  const Control& control = find_control(*unit, request->selector());
  if (!control.set_cur) return store(kInvalidControl);
  clear_missing_data(*request);
  return store(control.set_cur(control));
}
