// The handlers of the class requests, above the tables of camera, streaming and vendor: each of the eight is
// one line over the rows of uvc_class_row.h. Control thread only.
//
// The bytes and the status of a request travel through the process-wide uvc_resp_buf and
// uvc_request_error_code (uvc_state.h), not through arguments: these names and the handlers' signatures are
// given by the system that the service is part of. The control thread owns both, so that nothing is shared.
#pragma once

#include <span>

#include "platform/uvc_events.h"
#include "uvc/uvc_class_row.h"

enum UvcRequestCode : u8 {
  UVC_SET_CUR = 0x01,
  UVC_GET_CUR = 0x81,
  UVC_GET_MIN = 0x82,
  UVC_GET_MAX = 0x83,
  UVC_GET_RES = 0x84,
  UVC_GET_LEN = 0x85,
  UVC_GET_INFO = 0x86,
  UVC_GET_DEF = 0x87,
};

/// One class request: the setup packet, and the record for its answer or its data stage.
struct UvcRequestContext {
  u8 bRequestType;
  u8 bRequest;
  u16 wValue;   ///< high byte: selector
  u16 wIndex;   ///< low byte: interface; high byte: entity
  u16 wLength;  ///< bytes that the host asked for, or sends
  UvcRequestData data;

  u8 selector() const { return static_cast<u8>(wValue >> 8); }
  u8 interface() const { return static_cast<u8>(wIndex); }
  u8 entity() const { return static_cast<u8>(wIndex >> 8); }
};

/// Every unit that answers: camera terminal, processing unit, extension unit, streaming interface.
std::span<const Unit* const> uvc_units();

/// The handlers: find the row, write the answer into uvc_resp_buf or take the data from it, store the status
/// in uvc_request_error_code and return it. A control finds its data 8 bytes long at least: what the host did
/// not send is 0.
u32 uvc_getcur(UvcRequestContext* request);
u32 uvc_getmin(UvcRequestContext* request);
u32 uvc_getmax(UvcRequestContext* request);
u32 uvc_getres(UvcRequestContext* request);
u32 uvc_getlen(UvcRequestContext* request);
u32 uvc_getinfo(UvcRequestContext* request);
u32 uvc_getdef(UvcRequestContext* request);
u32 uvc_setcur(UvcRequestContext* request);
