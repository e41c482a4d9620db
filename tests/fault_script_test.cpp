#include "sim/fault_script.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

using sim::FaultKind;
using testing::HasSubstr;

TEST(FaultScriptTest, ReadsEveryFormWithItsTimes) {
  struct {
    const char* text;
    FaultKind kind;
    const char* node_text;
    double at;
    double duration;  ///< -1: none
  } const faults[] = {
      {"at 1.5s fail QBUF 2", FaultKind::kNode, "fail QBUF 2", 1.5, -1},
      {"fail STREAMON * for 2s", FaultKind::kNode, "fail STREAMON *", 0, 2},
      {"  reqbufs  returns count ", FaultKind::kNode, "reqbufs returns count", 0, -1},
      {"DQBUF gives index 7", FaultKind::kNode, "DQBUF gives index 7", 0, -1},
      {"unplug for 0.5s at 3.2s", FaultKind::kUnplug, "", 3.2, 0.5},
      {"at 1s server dead for 2s", FaultKind::kServerDead, "", 1, 2},
      {"log queue full", FaultKind::kLogQueueFull, "", 0, -1},
  };
  for (const auto& expected : faults) {
    std::string error;
    const auto fault = sim::parse_fault(expected.text, error);
    ASSERT_TRUE(fault) << error;
    EXPECT_EQ(fault->kind, expected.kind) << expected.text;
    EXPECT_EQ(fault->node_text, expected.node_text);
    EXPECT_DOUBLE_EQ(fault->at, expected.at) << expected.text;
    EXPECT_DOUBLE_EQ(fault->duration.value_or(-1), expected.duration) << expected.text;
  }
}

TEST(FaultScriptTest, NamesWhatItDoesNotUnderstand) {
  struct {
    const char* text;
    const char* complaint;
  } const faults[] = {
      {"", "no such fault: \"\""},
      {"fail qbuf 2", "no such fault: \"fail qbuf 2\""},
      {"at 1s", "no such fault: \"\""},
      {"server dead for a while", "\"for\" needs a time such as 1.5s or 300ms, not \"a\""},
      {"server dead at 1e999s", "not \"1e999s\""},
      {"server dead at 1s at 2s", "no such fault: \"server dead at 2s\""},
      {"unplug for 1s", "\"unplug\" needs \"at TIME\" and \"for TIME\""},
  };
  for (const auto& [text, complaint] : faults) {
    std::string error;
    EXPECT_FALSE(sim::parse_fault(text, error)) << text;
    EXPECT_THAT(error, HasSubstr(complaint));
  }
  EXPECT_THAT(sim::fault_forms("  "), HasSubstr("\n  at TIME unplug for TIME"));
}
