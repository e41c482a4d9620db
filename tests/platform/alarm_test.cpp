#include "platform/alarm.h"

#include <gtest/gtest.h>
#include <pthread.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <thread>

using namespace std::chrono_literals;

namespace {

TEST(Alarm, InterruptsBlockingCallsFromItsMomentToItsEnd) {
  int empty_pipe[2];
  ASSERT_EQ(pipe(empty_pipe), 0);
  char byte;
  const auto start = Alarm::Clock::now();
  {
    const Alarm alarm(100ms);
    EXPECT_EQ(read(empty_pipe[0], &byte, 1), -1);
    EXPECT_EQ(errno, EINTR);
    EXPECT_GE(Alarm::Clock::now() - start, 100ms);
    EXPECT_EQ(read(empty_pipe[0], &byte, 1), -1) << "an interruption is repeated";
    EXPECT_EQ(errno, EINTR);
  }
  EXPECT_EQ(usleep(50'000), 0) << "and over with the alarm";
}

TEST(Alarm, InterruptsItsOwnThreadOnly) {
  std::atomic<bool> undisturbed = false;
  std::thread other([&] { undisturbed = usleep(100'000) == 0; });
  const Alarm alarm(0s);
  EXPECT_EQ(usleep(1'000'000), -1);
  other.join();
  EXPECT_TRUE(undisturbed);
}

}  // namespace
