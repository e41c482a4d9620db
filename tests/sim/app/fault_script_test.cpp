#include "sim/app/fault_script.h"

#include <gmock/gmock.h>

#include <chrono>
#include <thread>

#include "ipc/VeltoDrvMsg.h"
#include "ipc/msg_records.h"
#include "sim/app/parties.h"
#include "sim/app/prompt.h"
#include "sim/app/storm_plan.h"
#include "sim/media/encoder_fault.h"
#include "sim/parties/server_fault.h"
#include "sim/seam/run.h"

using testing::Contains;
using testing::HasSubstr;
using namespace std::chrono_literals;

namespace {

using Clock = std::chrono::steady_clock;

sim::Fault understood(const char* text) {
  std::string error;
  const auto fault = sim::parse_fault(text, error);
  EXPECT_TRUE(fault) << text << ": " << error;
  return fault.value_or(sim::Fault());
}

std::string complaint(const char* text) {
  std::string error;
  EXPECT_FALSE(sim::parse_fault(text, error)) << text;
  return error;
}

TEST(FaultScript, NumbersStandWhereTheFormsHaveThem) {
  const sim::Fault encoder = understood("at 1s encoder slow by 200ms for 2s");
  EXPECT_EQ(std::get<sim::EncoderFault>(encoder.kind), sim::EncoderFault::kSlow);
  EXPECT_EQ(encoder.by, 0.2);
  EXPECT_EQ(encoder.at, 1);
  EXPECT_EQ(encoder.duration, 2);
  EXPECT_EQ(understood("server late by 7s").by, 7);
  EXPECT_EQ(understood("server slow").by, std::nullopt);
  EXPECT_EQ(complaint("encoder slow"), "no such fault: \"encoder slow\"");
  EXPECT_EQ(complaint("encoder silent by 1s"), "no such fault: \"encoder silent by TIME\"");
  EXPECT_THAT(complaint("encoder slow by"), HasSubstr("\"by\" needs a time"));
  EXPECT_THAT(complaint("encoder slow by much"), HasSubstr("not \"much\""));
}

TEST(FaultScript, FormsAreShownAndCompleted) {
  EXPECT_THAT(sim::fault_forms("  "), HasSubstr("\n  encoder slow by TIME "));
  EXPECT_THAT(sim::completions({"fault", "encoder", ""}), testing::Optional(Contains("slow")));
  EXPECT_THAT(sim::completions({"fault", "encoder", "slow", ""}), testing::Optional(Contains("by")));
}

TEST(FaultScript, KnowsEveryFaultOfTheStorm) {
  for (const sim::StormFault& fault : sim::storm_faults()) {
    if (fault.party == sim::StormParty::kService) continue;  // the storm's own
    understood((std::string("at 1s ") + fault.text + " for 1s").c_str());
  }
}

// How long a request to the system server takes.
Clock::duration time_of_a_request() {
  const auto begin = Clock::now();
  EXPECT_EQ(VeltoRequest20(1), 0);
  return Clock::now() - begin;
}

TEST(FaultScript, TheServerIsAsSlowAsTheFaultSays) {
  sim::Run run;
  sim::Parties parties({}, {.contains = {}});
  ASSERT_EQ(VeltoDrvInit(kVeltoProcess), 0);
  sim::set_fault(parties, understood("server slow"), true);
  EXPECT_GE(time_of_a_request(), 300ms);
  sim::set_fault(parties, understood("server slow by 500ms"), true);
  EXPECT_GE(time_of_a_request(), 500ms);
  sim::set_fault(parties, understood("server slow by 500ms"), false);
  EXPECT_LT(time_of_a_request(), 500ms);
}

TEST(FaultScript, TheEncoderIsAsSlowAsTheFaultSays) {
  sim::Run run;
  sim::Parties parties({}, {.contains = {}});
  const auto encoded = [&] { return parties.media.counts().encoded; };
  sim::set_fault(parties, understood("encoder slow by 250ms"), true);
  const auto begin = Clock::now();
  parties.media.apply({2, 1, {320, 240, 30, 0, kCodecMjpeg, 0, {1000}}});
  while (encoded() < 5) std::this_thread::sleep_for(1ms);
  EXPECT_GE(Clock::now() - begin, 1s);
}

}  // namespace
