// What the tests of support/ share: a run of the simulated camera, a logger that shows where each log call
// stands, a call's reports as one value, and a look at the descriptors that are left behind.
#pragma once

#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/msg.h>

#include <string>

#include "elog/elog.h"
#include "elog/elog_record.h"
#include "sim/seam/run.h"
#include "support/print.h"
#include "tests/printed_by.h"

/// What went to standard error and, as "[level][file function:line]message" lines, to the logger.
struct Reports {
  std::string err, log;
  bool operator==(const Reports&) const = default;
  Reports operator+(const Reports& next) const { return {err + next.err, log + next.log}; }
  friend void PrintTo(const Reports& reports, std::ostream* to) {
    *to << testing::PrintToString(reports.err) << " / " << testing::PrintToString(reports.log);
  }
};

class SupportTest : public testing::Test {
 protected:
  SupportTest() {
    log_module_init(ELOG_LVL_VERBOSE);
    for (u8 level = 0; level < ELOG_LVL_TOTAL_NUM; ++level)
      elog_set_fmt(level, ELOG_FMT_LVL | ELOG_FMT_DIR | ELOG_FMT_FUNC | ELOG_FMT_LINE);
    take_log();
  }
  ~SupportTest() override { log_module_exit(); }
  void TearDown() override { EXPECT_EQ(open_files(), files_at_start_ + files_kept_); }

  static std::string take_log() {
    const int queue = msgget(sim::run_key(kElogQueueKey), 0);
    ElogRecord record;
    std::string log;
    while (msgrcv(queue, &record, sizeof(record.payload), 0, IPC_NOWAIT) >= 0)
      log.append(record.payload.text, record.payload.length);
    return log;
  }

  template <typename Call>
  static Reports reports_of(Call call) {
    const std::string err = printed_by(call);
    return {err, take_log()};
  }

  /// What a call reports last, without the place that an error names before its message.
  template <typename Call>
  static std::string message_of(Call call) {
    const std::string text = printed_by(call), end_of_place = "\033[0m";
    const auto at = text.rfind(end_of_place);
    return at == text.npos ? text : text.substr(at + end_of_place.size());
  }

  /// The error form's report. The logger adds a newline of its own.
  static Reports error(const std::string& file, const std::string& function, int line,
                       const std::string& message) {
    return {"\033[0;31m[" + function + "]-" + std::to_string(line) + ": \033[0m" + message,
            "[W]" + info(file, function, line, message).log.substr(3)};
  }
  static Reports info(const std::string& file, const std::string& function, int line,
                      const std::string& message) {
    return {message, "[I][" + file + ' ' + function + ':' + std::to_string(line) + ']' + message + '\n'};
  }

  /// Open descriptors whose flags, F_GETFD, are not below `flags`.
  static int open_files(int flags = 0) {
    int count = 0;
    for (int fd = 0; fd < 64; ++fd) count += fcntl(fd, F_GETFD) >= flags;
    return count;
  }

  sim::Run run_;
  const int files_at_start_ = open_files();
  int files_kept_ = 0;  ///< how many more descriptors the test leaves, as is meant
};
