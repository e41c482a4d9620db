#include "sim/app/table.h"

#include <gmock/gmock.h>

namespace sim {
namespace {

constexpr Column kColumns[] = {{"what", 8, 12},
                               {"count", 5, 5, CellKind::kNumber},
                               {"frames", 9, 20, CellKind::kList},
                               {"verdict", 6, 20}};

TEST(TableTest, WrapsWhatDoesNotFit) {
  const std::string cells[] = {"one two three", "7", "81 01 FF, 81 02 FF", "unbreakable"};
  EXPECT_EQ(table_row(kColumns, cells, 31),
            "one two      7 81 01 FF  unbrea\n"
            "three          81 02 FF  kable\n");
}

TEST(TableTest, UsesAWiderTerminal) {
  const std::string cells[] = {"one two three", "7", "81 01 FF, 81 02 FF", "unbreakable"};
  EXPECT_EQ(table_row(kColumns, cells, 55),
            "one two          7 81 01 FF, 81 02 FF   unbreakable\n"
            "three\n");
}

}  // namespace
}  // namespace sim
