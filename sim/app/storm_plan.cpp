#include "sim/app/storm_plan.h"

#include <signal.h>

#include <algorithm>
#include <cstdio>
#include <iterator>
#include <random>
#include <string_view>

namespace sim {

namespace {

using enum StormParty;

constexpr StormFault kFaults[] = {
    {kServer, "server dead", 0.1, 3, 0, kLoses},
    {kServer, "server dead", 5, 7, 0},
    {kServer, "server full", 0.1, 2, 0, kLoses},
    {kServer, "server gone", 0.1, 2, 0, kLoses},
    {kServer, "server late", 0.1, 1, 6},
    {kServer, "server slow", 0.5, 2, 0, kDamages},
    {kServer, "server garbled", 0.1, 2, 0, kConfuses},
    {kServer, "server mute", 0.1, 2},
    {kServer, "server mute", 5, 7},
    {kServer, "server misdirects", 0.1, 2},
    {kServer, "server answers twice", 0.1, 2, 0, kLoses | kConfuses},
    {kEncoder, "encoder silent", 0.1, 3},
    {kEncoder, "encoder dead", 0.1, 2},
    {kEncoder, "encoder wrong-size", 0.1, 2, 0, kDamages},
    {kEncoder, "encoder posts", 0.1, 2},
    {kEncoder, "encoder gone", 0.1, 2},
    {kCollector, "log queue full", 0.1, 2},
    {kCollector, "collector gone", 0.1, 2},
    {kCable, "unplug", 0.02, 1},
    {kHost, "host rests", 0.1, 2},
    {kService, kServiceStopped, 0.05, 2},
    {kService, kServiceReloads, 0.05, 0.5},
    {kNode, "fail DQBUF 1-20", 1, 1},
    {kNode, "fail QBUF 1-3", 1, 1, 0, kDamages},
    {kNode, "fail STREAMOFF 1", 1, 1, 0, kDamages},
    {kNode, "fail STREAMON 1", 1, 1},
    {kNode, "fail QUERYBUF 1-2", 1, 1, 0, kDamages},
    {kNode, "fail MMAP 1-2", 1, 1, 0, kDamages},
};

constexpr const char* kStateNames[] = {"starting",  "idle",         "streaming",  "stopping",
                                       "unplugged", "needs answer", "full queue", "needs picture"};
static_assert(std::size(kStateNames) == static_cast<std::size_t>(StormState::kCount));

constexpr const char* kOutputNames[] = {"logged", "not read", "without a reader", "closed"};

constexpr u32 kWidestVideo = 720;      //< pixels
constexpr double kFaultsBegin = 1.5;   //< seconds within which the faults of a round begin
constexpr double kLongestState = 0.2;  //< seconds
constexpr double kHostPatience = 5;    //< seconds after which the host gives a request up

// The same numbers everywhere, which the library's distributions do not promise.
class Dice {
 public:
  Dice(u32 seed, u32 number) {
    std::seed_seq both{seed, number};
    random_.seed(both);
  }
  u32 below(std::size_t limit) { return static_cast<u32>(random_() % limit); }
  double between(double least, double most) { return least + (most - least) * below(10'000) / 10'000; }
  template <class Range>
  const auto& one_of(const Range& range) {
    return std::begin(range)[below(std::size(range))];
  }

 private:
  std::mt19937 random_;
};

// Large video pictures are left out: a busy PC takes longer to encode the first ones than the service may
// take to bring them.
StreamChoice any_choice(Dice& dice) {
  const HostFormat& format = dice.one_of(host_formats());
  constexpr u32 kRates[] = {30, 25, 15};
  StreamChoice choice{format.format, dice.one_of(format.sizes), dice.one_of(kRates)};
  const bool video = choice.format == StreamFormat::kH264 || choice.format == StreamFormat::kH265;
  if (video && choice.size.width > kWidestVideo) choice.size = {640, 480};
  if (choice.size.width > kWidestVideo) choice.rate = 15;
  return choice;
}

// Index of a fault that is over before the host gives a request up, or of one that is not.
std::size_t any_fault(Dice& dice, bool outlasts_host) {
  for (;;) {
    const std::size_t index = dice.below(std::size(kFaults));
    const StormFault& fault = kFaults[index];
    if ((fault.shortest + fault.aftermath >= kHostPatience) == outlasts_host) return index;
  }
}

// Its first fault as any_fault() has it, the others short.
StormRound any_round(Dice& dice, bool outlasts_host) {
  StormRound round{.choice = any_choice(dice), .steps = {}};
  for (u32 left = 1 + dice.below(4); left > 0; --left) {
    const std::size_t index = any_fault(dice, outlasts_host && round.steps.empty());
    const StormFault& fault = kFaults[index];
    const StormStep step{index, dice.between(0, kFaultsBegin), dice.between(fault.shortest, fault.longest)};
    const auto same = [&](const StormStep& other) { return kFaults[other.fault].party == fault.party; };
    if (std::ranges::none_of(round.steps, same)) round.steps.push_back(step);
    if (fault.party == kNode) round.then = round.choice;  // most of them show at a stream's end and start
  }
  std::ranges::sort(round.steps, {}, &StormStep::at);
  if (round.then || dice.below(3) == 0) round.then = any_choice(dice);
  round.then_at = dice.between(0.2, kFaultsBegin + 0.5);
  return round;
}

// Mostly one that can be shown.
ServiceOutput any_output(Dice& dice) {
  const u32 output = dice.below(2 * std::size(kOutputNames));
  return output < std::size(kOutputNames) ? static_cast<ServiceOutput>(output) : ServiceOutput::kLogged;
}

StormEnd any_end(Dice& dice) {
  const auto state = static_cast<StormState>(dice.below(static_cast<u32>(StormState::kCount)));
  const StreamChoice choice = any_choice(dice);
  return {state, choice, dice.below(2) ? SIGTERM : SIGINT, dice.between(0, kLongestState)};
}

StormLife any_life(Dice dice, u32 number, u32 most_rounds, bool outlasts_host) {
  StormLife life{.waits_in_kernel = number % 2 == 1, .output = any_output(dice), .rounds = {}, .end = {}};
  for (u32 left = most_rounds ? 1 + dice.below(most_rounds) : 0; left > 0; --left)
    life.rounds.push_back(any_round(dice, outlasts_host));
  life.end = any_end(dice);
  return life;
}

}  // namespace

std::span<const StormFault> storm_faults() { return kFaults; }
const char* name_of(StormState state) { return kStateNames[static_cast<u32>(state)]; }

const char* name_of(ServiceOutput output) { return kOutputNames[static_cast<u32>(output)]; }

std::string StormFault::name() const {
  char times[32];
  std::snprintf(times, sizeof(times), ", %g-%g s", shortest, longest);
  return text + std::string(times);
}

std::string StormStep::text() const {
  char times[48];
  std::snprintf(times, sizeof(times), " for %.3fs", duration);
  return kFaults[fault].text + std::string(times);
}

double StormRound::end() const {
  double last = then ? then_at : 0;
  for (const StormStep& step : steps)
    last = std::max(last, step.at + step.duration + kFaults[step.fault].aftermath);
  return last;
}

bool StormRound::any(StormHarm harm) const {
  return std::ranges::any_of(steps,
                             [&](const StormStep& step) { return (kFaults[step.fault].harm & harm) != 0; });
}

bool StormRound::has(const char* text) const {
  return std::ranges::any_of(
      steps, [&](const StormStep& step) { return std::string_view(kFaults[step.fault].text) == text; });
}

StormLife plan_storm_life(u32 seed, u32 number) { return any_life({seed, number}, number, 4, false); }
StormLife plan_long_life(u32 seed, u32 number) { return any_life({seed, ~number}, number, 4, true); }
StormLife plan_short_life(u32 seed, u32 number) { return any_life({~seed, number}, number, 0, false); }

}  // namespace sim
