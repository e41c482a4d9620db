// Faults as a person writes them: "at 3.2s unplug for 0.5s", "server slow by 1s", "fail QBUF 2".
#pragma once

#include <optional>
#include <string>
#include <string_view>
#include <variant>
#include <vector>

namespace sim {

enum class ServerFault;   // sim/parties/server_fault.h
enum class EncoderFault;  // sim/media/encoder_fault.h
enum class CollectorFault { kQueueFull, kGone };
enum class HostFault { kNoCable, kRests };
/// A fault of the gadget driver.
struct NodeFault {
  std::string text;  ///< for NodeHost::script()
};
using FaultKind = std::variant<NodeFault, HostFault, ServerFault, EncoderFault, CollectorFault>;

struct Fault {
  FaultKind kind;
  std::optional<double> by = {};        ///< seconds; how slow or how late
  double at = 0;                        ///< seconds after the service's start; 0: before it starts
  std::optional<double> duration = {};  ///< seconds; without: to the end
  std::string text = {};                ///< as it was written
};

/// Nothing, with a one-line message in `error`, when the text is not understood.
std::optional<Fault> parse_fault(std::string_view text, std::string& error);
/// A form that parse_fault() understands, such as "server dead"; what is to be filled in has capitals.
struct FaultShape {
  const char *shown, *meaning;
};
std::vector<FaultShape> fault_shapes();
/// Every form that parse_fault() understands, a line each, indented by `indent`.
std::string fault_forms(std::string_view indent);

}  // namespace sim
