// What the prompt and the page have in common when they get and set controls.
#pragma once

#include <optional>

#include "sim/app/text.h"
#include "sim/host/host_controls.h"

namespace sim {

constexpr u16 kLongestData = 64;  ///< of a request's data stage, in bytes

struct Range {
  i32 least, most;
};
/// Returns what fits the control's bytes.
Range range_of(const HostControl& control);

/// Returns the answer to GET_MIN, GET_MAX, GET_RES or GET_DEF, or nothing if the camera does not give it.
std::optional<i32> get_limit(Conversation& host, const HostControl& control, u8 request);

struct Reading {
  std::optional<i32> value;
  Complaint complaint;  ///< if the camera refused what was set, or does not answer
};
/// Reads a control after `wanted` was set: the camera does not report that it refused a value.
Reading read_back(Conversation& host, const HostControl& control, i32 wanted);

/// Returns how many bytes the answer to a GET request has, according to GET_LEN; 0 if that is not answered.
u16 answer_length(Conversation& host, u8 entity, u8 selector, u8 request);

}  // namespace sim
