// What the tests of the logger share: its queue, read as the log collector reads it, and short ways to log.
#pragma once

#include <gtest/gtest.h>
#include <sys/msg.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "elog/elog.h"
#include "elog/elog_record.h"
#include "sim/seam/run.h"

using Texts = std::vector<std::string>;

inline std::string pid_text(pid_t pid = getpid()) {
  char text[10];
  const int cut = std::snprintf(text, sizeof(text), "pid:%04d", pid);
  EXPECT_GT(cut, 0);
  return text;
}

struct Record {
  long type;
  u8 level;
  std::string text;
};

/// A test of the logger as the collector sees it.
class Elog : public testing::Test {
 protected:
  Elog() { alarm(60); }  // a logger that hangs fails soon
  ~Elog() override { msgctl(queue, IPC_RMID, nullptr); }

  std::optional<Record> take() {
    ElogRecord record;
    const ssize_t size = msgrcv(queue, &record, sizeof(record.payload), 0, IPC_NOWAIT);
    if (size < 0) return std::nullopt;
    EXPECT_EQ(size, static_cast<ssize_t>(kElogHeaderSize + record.payload.length));
    return Record{record.type, record.payload.level, {record.payload.text, record.payload.length}};
  }
  Texts texts() {
    Texts all;
    while (const auto record = take()) all.push_back(record->text);
    return all;
  }
  /// Waits for a line that ends with `end`.
  bool comes(const std::string& end, std::string* whole = nullptr) {
    for (int i = 0; i < 500; std::this_thread::sleep_for(std::chrono::milliseconds(10)), ++i) {
      while (const auto record = take()) {
        if (whole) *whole = record->text;
        if (record->text.ends_with(end)) return true;
      }
    }
    return false;
  }
  void set_capacity(unsigned long bytes) {
    msqid_ds state;
    ASSERT_EQ(msgctl(queue, IPC_STAT, &state), 0);
    state.msg_qbytes = bytes;
    ASSERT_EQ(msgctl(queue, IPC_SET, &state), 0);
  }
  /// Starts the logger with the messages alone on its lines.
  void start_bare() {
    log_module_init(ELOG_LVL_VERBOSE);
    for (u8 level = 0; level < ELOG_LVL_TOTAL_NUM; ++level) elog_set_fmt(level, 0);
  }

  sim::Run run;
  int queue = msgget(sim::run_key(kElogQueueKey), IPC_CREAT | 0600);
};

inline void log_text(u8 level, const char* tag, const char* text) {
  elog_output(level, tag, "f.c", "func", 7, "%s", text);
}
inline void log_text(const char* text) { log_text(ELOG_LVL_INFO, "NO_TAG", text); }
