#include "support/print.h"

#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>

#include "tests/support/support_fixture.h"

constexpr char kPrintFile[] = "camera.c";

namespace {

using PrintTest = SupportTest;

int evaluated = 0;
int seven() {
  ++evaluated;
  return 7;
}

// The three forms with an argument each, so that a muted form's argument shows.
void speak() {
  PRINT_ERROR_AT(12, "error %d\n", seven());
  PRINT_INFO_AT(34, "info %d\n", seven());
  PRINT_DEBUG_AT(56, "debug %d\n", seven());
}

TEST_F(PrintTest, LevelAdmitsForms) {
  EXPECT_EQ(print_level, 3);
  const Reports red = error("camera.c", "speak", 12, "error 7\n");
  const Reports plain = info("camera.c", "speak", 34, "info 7\n");
  const Reports cyan = {"\033[0;36mdebug 7\n\033[0m", "[D][camera.c speak:56]debug 7\n\n"};
  const Reports expected[] = {{}, {}, red, red + plain, red + plain + cyan, red + plain + cyan};
  for (int level = -1; level <= 5; ++level) {
    print_level = level;
    evaluated = 0;
    EXPECT_EQ(reports_of(speak), expected[std::max(level, 0)]) << level;
    EXPECT_EQ(evaluated, std::clamp(level - 1, 0, 3)) << level;
  }
}

TEST_F(PrintTest, NamesItsOwnLine) {
  const int line = __LINE__ + 1;
  EXPECT_EQ(reports_of([] { PRINT_ERROR("here"); }), error("camera.c", "operator()", line, "here"));
}

TEST_F(PrintTest, OnlyErrorFlushesStandardOutput) {
  testing::internal::CaptureStderr();
  testing::internal::CaptureStdout();
  std::printf("pending");
  const auto written = [] {
    struct stat info;
    return fstat(STDOUT_FILENO, &info) == 0 ? info.st_size : -1;
  };
  print_level = 4;
  PRINT_INFO("info");
  PRINT_DEBUG("debug");
  EXPECT_EQ(written(), 0);
  PRINT_ERROR("error");
  EXPECT_EQ(written(), 7);
  EXPECT_EQ(testing::internal::GetCapturedStdout(), "pending");
  testing::internal::GetCapturedStderr();
}

TEST_F(PrintTest, FullStandardOutputHoldsNobodyUp) {
  int ends[2];
  ASSERT_EQ(pipe2(ends, O_NONBLOCK), 0);
  while (write(ends[1], "x", 1) == 1) {
  }
  fcntl(ends[1], F_SETFL, 0);
  const int saved = dup(STDOUT_FILENO);
  dup2(ends[1], STDOUT_FILENO);
  alarm(10);
  std::printf("pending");
  PRINT_ERROR_AT(1, "error\n");
  alarm(0);
  for (char text[4096]; read(ends[0], text, sizeof(text)) > 0;) {
  }
  std::fflush(stdout);
  dup2(saved, STDOUT_FILENO);
  for (const int fd : {saved, ends[0], ends[1]}) close(fd);
  EXPECT_EQ(take_log(), error("camera.c", "TestBody", 1, "error\n").log);
}

}  // namespace
