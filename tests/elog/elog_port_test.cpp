#include "elog/elog_port.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/msg.h>
#include <sys/time.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <ctime>
#include <functional>
#include <future>
#include <string>
#include <thread>
#include <vector>

#include "elog/elog.h"
#include "elog/plugins/file/elog_file.h"
#include "tests/elog/elog_fixture.h"

namespace {

using namespace std::chrono_literals;
using testing::ElementsAre;
using testing::MatchesRegex;

TEST_F(Elog, TimeIsTheClocks) {
  const auto now = [] {
    char text[32];
    timeval clock;
    const std::time_t second = std::time(nullptr);
    gettimeofday(&clock, nullptr);
    std::tm local;
    std::strftime(text, sizeof(text), "%Y-%m-%d %T", localtime_r(&second, &local));
    std::snprintf(text + 19, sizeof(text) - 19, " %06ld", static_cast<long>(clock.tv_usec));
    return std::string(text);
  };
  std::string before, shown, after;
  do {
    before = now();
    shown = elog_port_get_time();
    after = now();
  } while (before.substr(0, 19) != after.substr(0, 19) || before > after);  // a second ended in between
  EXPECT_LE(before, shown);
  EXPECT_LE(shown, after);
}

TEST_F(Elog, LifeCycle) {
  log_text("before the start");
  const ElogMsgqCfg cfg = {1, kElogQueueKey, true};
  EXPECT_EQ(elog_init(nullptr, &cfg), 0);
  log_text("initialised only");
  elog_set_filter_lvl(ELOG_LVL_INFO);
  EXPECT_EQ(elog_init(nullptr, &cfg), 0);  // changes nothing
  elog_start();
  log_text(ELOG_LVL_DEBUG, "NO_TAG", "too low");
  log_text("first");
  elog_set_output_enabled(false);
  log_text("switched off");
  elog_hexdump(ELOG_LVL_INFO, "off", 1, "a", 1);
  elog_set_output_enabled(true);
  log_module_exit();  // without a farewell
  log_text("after the end");
  log_module_init(ELOG_LVL_INFO);
  elog_set_fmt(ELOG_LVL_INFO, 0);
  log_text("again");
  EXPECT_THAT(texts(), ElementsAre("first\n", "again\n"));

  elog_set_fmt(ELOG_LVL_INFO, ELOG_FMT_P_INFO);
  log_text("parent");
  const pid_t child = fork();
  if (child == 0) {
    log_text("child");
    _exit(0);
  }
  waitpid(child, nullptr, 0);
  EXPECT_THAT(texts(), ElementsAre("[" + pid_text() + "]parent\n", "[" + pid_text(child) + "]child\n"));
}

TEST_F(Elog, QueueIsCreatedWhenMissingAndFoundWhenMadeAnew) {
  msgctl(queue, IPC_RMID, nullptr);
  testing::internal::CaptureStdout();
  start_bare();
  EXPECT_EQ(testing::internal::GetCapturedStdout(), "msg queue 19088811 isn't exist\n");
  queue = msgget(sim::run_key(kElogQueueKey), 0);
  msqid_ds state;
  ASSERT_EQ(msgctl(queue, IPC_STAT, &state), 0);
  EXPECT_EQ(state.msg_perm.mode & 0777, 0666);
  log_text("text");
  EXPECT_THAT(texts(), ElementsAre("text\n"));

  msgctl(queue, IPC_RMID, nullptr);
  testing::internal::CaptureStdout();
  log_text("lost");
  EXPECT_EQ(testing::internal::GetCapturedStdout(), "msgctl error.\n");
  queue = msgget(sim::run_key(kElogQueueKey), IPC_CREAT | 0600);
  log_text("to the new one");
  EXPECT_THAT(texts(), ElementsAre("to the new one\n"));
}

TEST_F(Elog, QueueTakesLinesUpToHalfItsCapacity) {
  start_bare();
  set_capacity(400);
  testing::internal::CaptureStdout();
  log_text(std::string(395, 'x').c_str());  // 401 bytes with header and newline
  EXPECT_EQ(testing::internal::GetCapturedStdout(), "msg buffer overflow.\n");
  testing::internal::CaptureStdout();
  log_text(std::string(194, 'x').c_str());  // 200: half full
  log_text("still taken");
  log_text("refused");
  EXPECT_EQ(testing::internal::GetCapturedStdout(), "msg buffer overflow.\n");
  EXPECT_THAT(texts(), ElementsAre(testing::SizeIs(195), "still taken\n"));
}

// A queue can be full although it holds no bytes: empty messages count as well.
TEST_F(Elog, FullQueueNeverHoldsTheCaller) {
  start_bare();
  constexpr int kCapacity = 600;
  set_capacity(kCapacity);
  const long empty = 2;
  for (int i = 0; i < kCapacity; ++i) ASSERT_EQ(msgsnd(queue, &empty, 0, IPC_NOWAIT), 0);
  alarm(5);
  log_text("lost");
  ASSERT_EQ(msgrcv(queue, std::vector<long>(1).data(), 0, 0, IPC_NOWAIT), 0);
  log_text("sent");
  ElogRecord record;
  EXPECT_EQ(msgrcv(queue, &record, sizeof(record.payload), 1, IPC_NOWAIT), 5 + 5);
}

// A thread that takes the lock and gives it back; the caller sees whether that was possible.
std::future<void> visit_lock() {
  return std::async(std::launch::async, [] {
    elog_port_output_lock();
    elog_port_output_unlock();
  });
}

void expect_held_until(const std::function<void()>& release) {
  auto visitor = visit_lock();
  EXPECT_EQ(visitor.wait_for(50ms), std::future_status::timeout);
  release();
  visitor.get();
}

TEST_F(Elog, LockFollowsItsSwitch) {
  start_bare();
  elog_output_lock_enabled(false);
  elog_output_lock();
  visit_lock().get();  // not really taken
  elog_output_lock_enabled(true);
  expect_held_until(elog_output_unlock);  // it is now

  elog_output_lock();
  elog_output_lock_enabled(false);
  elog_output_lock();
  elog_output_unlock();
  expect_held_until([] { elog_output_lock_enabled(true); });

  elog_port_output_lock();
  std::async(std::launch::async, elog_port_output_unlock).get();  // not that thread's to release
  expect_held_until(elog_port_output_unlock);

  // A tag level takes the lock at the port and leaves it there while locking is off.
  elog_output_lock_enabled(false);
  elog_get_filter_tag_lvl("tag");
  expect_held_until([] {
    log_text("one");
    log_text("two");
    elog_port_output_unlock();
  });
  EXPECT_THAT(texts(), ElementsAre("one\n", "two\n"));
}

TEST_F(Elog, ThreadsLogWhileFiltersChange) {
  log_module_init(ELOG_LVL_VERBOSE);
  std::jthread changer([](std::stop_token end) {
    for (u32 n = 0; !end.stop_requested(); ++n) {
      elog_set_filter(static_cast<u8>(n % 6), n % 2 ? "TAG" : "NO_T", n % 3 ? "" : "]");
      elog_set_filter_tag_lvl("NO_TAG", static_cast<u8>(n % 6));
      elog_set_fmt(ELOG_LVL_WARN, n % 256);
      log_module_set_level(n % 6);
      std::this_thread::sleep_for(50us);
    }
  });
  std::atomic<int> logging = 3;
  std::vector<std::jthread> loggers;
  for (int i = 0; i < 3; ++i) {
    loggers.emplace_back([&logging, i] {
      const std::string text(40, static_cast<char>('a' + i));
      for (int n = 0; n < 2000; ++n) log_text(static_cast<u8>(i), "NO_TAG", text.c_str());
      --logging;
    });
  }
  std::size_t whole = 0;
  for (; logging > 0; std::this_thread::sleep_for(20us)) {
    for (const std::string& text : texts()) {
      EXPECT_THAT(text, MatchesRegex(".*(a{40}|b{40}|c{40})\n"));
      ++whole;
    }
  }
  EXPECT_GT(whole + texts().size(), 0u);
}

// Without a hook: the text goes out, the thread stays, and others can still log.
TEST_F(Elog, BrokenPreconditionsWithoutHook) {
  const std::string name = run.path("/tmp/log");
  const ElogFileCfg file = {name.c_str(), 100, 1, true};
  for (const auto& [breach, end] : std::vector<std::pair<std::function<void()>, std::string>>{
           {[] { elog_output(ELOG_LVL_WARN, "NO_TAG", "f.c", nullptr, 7, "under the lock"); },
            "[elog_utils elog_strcpy:45](src) has assert failed at elog_strcpy:45.\n"},
           {[&] {
              log_module_exit();
              elog_init(&file, nullptr);
              elog_deinit();
              log_module_init(ELOG_LVL_INFO);
              elog_set_fmt(ELOG_LVL_ASSERT, 0xFF);
              log_text("to a closed file");
            },
            "[plugins/file/elog_file elog_file_write:109](init_ok) has assert failed at "
            "elog_file_write:109.\n"}}) {
    const pid_t child = fork();
    if (child == 0) {
      alarm(60);
      log_module_init(ELOG_LVL_INFO);
      elog_set_fmt(ELOG_LVL_ASSERT, 0xFF);
      std::thread(breach).detach();
      for (;; std::this_thread::sleep_for(20ms)) elog_raw_output(ELOG_LVL_INFO, "alive\n");
    }
    std::string line;
    EXPECT_TRUE(comes(end, &line));
    EXPECT_THAT(line, testing::StartsWith("["));
    EXPECT_TRUE(end.find("elog_file") != end.npos || comes("alive\n"));
    EXPECT_EQ(waitpid(child, nullptr, WNOHANG), 0);
    kill(child, SIGKILL);
    waitpid(child, nullptr, 0);
  }
}

}  // namespace
