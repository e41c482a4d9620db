// The node's scripted faults and its call log: everything that writes calls as text.
#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdio>
#include <cstring>

#include "sim/seam/node_state.h"

namespace sim {
namespace {

// How a kind of call is written, and what its record's words mean; null if it has none.
struct KindText {
  const char* name;
  const char* words[2] = {};
};
constexpr std::array<KindText, 24> kKinds{{
    {"OPEN"},
    {"CLOSE"},
    {"QUERYCAP"},
    {"S_FMT", {"width", "height"}},
    {"G_FMT"},
    {"REQBUFS", {"count", "granted"}},
    {"QUERYBUF", {"index"}},
    {"MMAP", {"offset", "length"}},
    {"QBUF", {"index", "bytesused"}},
    {"DQBUF", {"index", "bytesused"}},
    {"STREAMON"},
    {"STREAMOFF"},
    {"SUBSCRIBE", {"event"}},
    {"DQEVENT", {"event"}},
    {"POLL"},
    {"SEND_RESPONSE", {"length"}},
    {"PRIVATE"},
    {"UNKNOWN", {"request"}},
    {"MEM_MMAP"},
    {"I2C_SLAVE"},
    {"I2C_REG_WIDTH"},
    {"I2C_DATA_WIDTH"},
    {"I2C_READ"},
    {"I2C_WRITE"},
}};
static_assert(kKinds.size() == static_cast<size_t>(CallKind::kI2cWrite) + 1);

constexpr u32 kAlways = ~0u;

std::string format_word(std::string_view label, u32 value) {
  static constexpr const char* kEvents[] = {"CONNECT",   "DISCONNECT", "STREAMON",
                                            "STREAMOFF", "SETUP",      "DATA"};
  const bool named = label == "event" && value < std::size(kEvents);
  const std::string text = named ? kEvents[value] : std::to_string(static_cast<i32>(value));
  return ' ' + std::string(label) + '=' + text;
}

#ifdef __UCLIBC__  // has no names for errors; these are the ones that the node returns
const char* strerrorname_np(int error) {
  constexpr struct {
    int number;
    const char* name;
  } kNames[] = {{EAGAIN, "EAGAIN"}, {EBADF, "EBADF"},   {EBUSY, "EBUSY"},
                {EINVAL, "EINVAL"}, {EMFILE, "EMFILE"}, {ENODEV, "ENODEV"},
                {ENOENT, "ENOENT"}, {ENOSPC, "ENOSPC"}, {ENOTTY, "ENOTTY"}};
  const auto* found = std::ranges::find(kNames, error, [](const auto& row) { return row.number; });
  return found != std::end(kNames) ? found->name : nullptr;
}
#endif

std::string format_call(const CallRecord& call) {
  const KindText& text = kKinds[static_cast<size_t>(call.kind)];
  std::string line = text.name;
  for (size_t i = 0; i < 2 && text.words[i]; ++i) line += format_word(text.words[i], call.words[i]);
  const char* error = call.error ? strerrorname_np(call.error) : "0";
  return line + " -> " + (error ? error : std::to_string(call.error)) + '\n';
}

// "2", "3-5" or "*".
bool parse_range(const char* text, CallFault& fault) {
  char rest;
  if (!std::strcmp(text, "*")) {
    fault.from = 1;
    fault.to = kAlways;
    return true;
  }
  if (std::sscanf(text, "%u-%u%c", &fault.from, &fault.to, &rest) == 2)
    return fault.from > 0 && fault.from <= fault.to;
  fault.to = 0;
  if (std::sscanf(text, "%u%c", &fault.from, &rest) != 1) return false;
  fault.to = fault.from;
  return fault.from > 0;
}

// "KIND RANGE" with an optional " errno=N".
std::optional<CallFault> parse_call_fault(const char* text) {
  char kind[24], range[24], error[24] = "errno=5", rest;
  const int words = std::sscanf(text, "%23s %23s %23s %c", kind, range, error, &rest);
  CallFault fault{};
  if ((words != 2 && words != 3) || !parse_range(range, fault)) return {};
  if (std::sscanf(error, "errno=%d%c", &fault.error, &rest) != 1 || fault.error <= 0) return {};
  for (size_t i = 0; i < kKinds.size(); ++i) {
    if (std::strcmp(kKinds[i].name, kind) != 0) continue;
    fault.kind = static_cast<CallKind>(i);
    return fault;
  }
  return {};
}

void clear_faults(NodeState& state) {
  state.fault_count = 0;
  state.grant = kMaxBuffers;
  state.reqbufs_returns_count = false;
  state.dequeued_index = state.queried_index = {};
}

}  // namespace

void record_call(NodeState& state, const CallRecord& call) {
  state.calls[state.call_count++ % state.calls.size()] = call;
}

i32 next_fault(NodeState& state, CallKind kind) {
  i32 error = 0;
  for (CallFault& fault : std::span(state.faults, state.fault_count)) {
    if (fault.kind != kind) continue;
    ++fault.seen;
    if (!error && fault.from <= fault.seen && fault.seen <= fault.to) error = fault.error;
  }
  return error;
}

i32 fault_of(CallKind kind) {
  NodeState& state = node_state();
  const NodeLock lock(state.mutex);
  return next_fault(state, kind);
}

bool script_fault(std::string_view text) {
  const std::string line(text);
  NodeState& state = node_state();
  const NodeLock lock(state.mutex);
  char rest;
  if (line == "clear") return clear_faults(state), true;
  if (line == "reqbufs returns count") return state.reqbufs_returns_count = true;
  if (u32 grant; std::sscanf(line.c_str(), "grant %u%c", &grant, &rest) == 1)
    return grant <= kMaxBuffers && (state.grant = grant, true);
  if (u32 index; std::sscanf(line.c_str(), "DQBUF gives index %u%c", &index, &rest) == 1)
    return state.dequeued_index = index, true;
  if (u32 index; std::sscanf(line.c_str(), "QUERYBUF gives index %u%c", &index, &rest) == 1)
    return state.queried_index = index, true;
  if (!line.starts_with("fail ") || state.fault_count == std::size(state.faults)) return false;
  const auto fault = parse_call_fault(line.c_str() + 5);
  if (fault) state.faults[state.fault_count++] = *fault;
  return fault.has_value();
}

std::string format_calls() {
  NodeState& state = node_state();
  const NodeLock lock(state.mutex);
  const u64 kept = std::min<u64>(state.call_count, state.calls.size());
  std::string text;
  for (u64 i = state.call_count - kept; i < state.call_count; ++i)
    text += format_call(state.calls[i % state.calls.size()]);
  return text;
}

}  // namespace sim
