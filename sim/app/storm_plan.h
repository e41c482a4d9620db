// What happens in a storm: lives of the service, each with faults while it streams and an end in some state.
// A plan is a pure function of the storm's seed and the life's number, so a seed repeats the run.
#pragma once

#include <optional>
#include <span>
#include <string>
#include <vector>

#include "sim/app/service_process.h"
#include "sim/host/usb_host.h"

namespace sim {

/// Who has trouble. A round has one fault of a party at most.
enum class StormParty { kServer, kEncoder, kCollector, kCable, kHost, kService, kNode };

enum StormHarm : u8 {
  kLoses = 1,     ///< messages get lost: what was asked for meanwhile is asked for again
  kConfuses = 2,  ///< answers may be anything
  kDamages = 4,   ///< frames are broken or left out before the service has them or after
};

/// One row a kind of fault.
struct StormFault {
  StormParty party;
  const char* text;          ///< as --fault takes it, or one of the two below
  double shortest, longest;  ///< seconds
  double aftermath = 0;      ///< seconds for which it goes on after its end
  u8 harm = 0;               ///< what is excused meanwhile, of StormHarm
  std::string name() const;  ///< such as "server mute, 5-7 s"
};
std::span<const StormFault> storm_faults();
constexpr char kServiceStopped[] = "service stopped";  ///< SIGSTOP, then SIGCONT
constexpr char kServiceReloads[] = "service reloads";  ///< a SIGUSR1 a millisecond

struct StormStep {
  std::size_t fault;    ///< index into storm_faults()
  double at, duration;  ///< seconds from the round's begin
  std::string text() const;
};

struct StormRound {
  StreamChoice choice;
  std::vector<StormStep> steps;           ///< by time
  std::optional<StreamChoice> then = {};  ///< the host goes over to it in the middle
  double then_at = 0;
  /// Seconds until the last fault is over.
  double end() const;
  bool any(StormHarm harm) const;
  bool has(const char* text) const;
};

/// What the service is at when the signal comes.
enum class StormState {
  kStarting,
  kIdle,
  kStreaming,
  kStopping,
  kUnplugged,
  kWaitsForAnswer,
  kQueueFull,
  kWaitsForPicture,
  kCount,
};
const char* name_of(StormState state);
const char* name_of(ServiceOutput output);

struct StormEnd {
  StormState state;
  StreamChoice choice;
  int signal;
  double after;  ///< seconds that the state has lasted
};

struct StormLife {
  bool waits_in_kernel;  ///< the service is started so; every other life
  ServiceOutput output;
  std::vector<StormRound> rounds;
  StormEnd end;
};
StormLife plan_storm_life(u32 seed, u32 number);
/// The same, and a fault of each round lasts longer than the host waits for an answer.
StormLife plan_long_life(u32 seed, u32 number);
/// A life that is an end and nothing else.
StormLife plan_short_life(u32 seed, u32 number);

}  // namespace sim
