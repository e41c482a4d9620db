#include "elog/plugins/file/elog_file.h"

#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <filesystem>
#include <map>
#include <string>

#include "elog/elog.h"
#include "elog/elog_port.h"
#include "sim/seam/run.h"

namespace {

using testing::ElementsAre;
using testing::Pair;

void write(const std::string& line) { elog_file_write(line.data(), line.size()); }

class ElogFile : public testing::Test {
 protected:
  // The log's files by their suffix.
  std::map<std::string, std::string> files() const {
    std::map<std::string, std::string> all;
    for (const auto& entry : std::filesystem::directory_iterator(run.path("/tmp"))) {
      const std::string file = entry.path().filename();
      all[file.substr(3)] = run.read_file("/tmp/" + file);
    }
    return all;
  }

  sim::Run run;
  const std::string name = "/tmp/log";  // the camera's path: the run's own folder, never this machine's
};

TEST_F(ElogFile, AppendsAndReopens) {
  run.write_file("/tmp/log", "old\n");
  const ElogFileCfg cfg = {name.c_str(), 1000, 0, false};
  EXPECT_EQ(elog_file_init(&cfg), 0);
  write("one\n");
  EXPECT_THAT(files(), ElementsAre(Pair("", "old\none\n")));  // nothing is kept back

  const std::string second = name + "2";
  const ElogFileCfg other = {second.c_str(), 1000, 0, false};
  EXPECT_EQ(elog_file_init(&other), 0);  // already done: changes nothing
  write("two\n");
  elog_file_config(&other);
  write("three\n");
  elog_file_config(nullptr);
  write("lost\n");
  elog_file_deinit();
  EXPECT_EQ(elog_file_init(&cfg), 0);
  write("four\n");
  EXPECT_THAT(files(), ElementsAre(Pair("", "old\none\ntwo\nfour\n"), Pair("2", "three\n")));
}

TEST_F(ElogFile, RotatesBySize) {
  ElogFileCfg cfg = {name.c_str(), 4, 3, false};
  elog_file_init(&cfg);
  write("1\n");
  write("2\n");
  write("3\n");  // 4 bytes are not above 4
  EXPECT_THAT(files(), ElementsAre(Pair("", "1\n2\n3\n")));
  for (const char* line : {"44444\n", "55555\n", "66666\n"}) write(line);
  EXPECT_THAT(files(), ElementsAre(Pair("", "66666\n"), Pair(".0", "55555\n"), Pair(".1", "44444\n"),
                                   Pair(".2", "1\n2\n3\n")));
  cfg.max_rotate = 0;
  elog_file_config(&cfg);
  write("too much\n");
  cfg.max_rotate = 3;
  elog_file_config(&cfg);
  write("7\n");
  EXPECT_THAT(files(), ElementsAre(Pair("", "7\n"), Pair(".0", "66666\n"), Pair(".1", "55555\n"),
                                   Pair(".2", "44444\n")));
}

TEST_F(ElogFile, FailedRotationDropsTheLine) {
  const ElogFileCfg cfg = {name.c_str(), 0, 1, false};
  elog_file_init(&cfg);
  write("1\n");
  std::filesystem::create_directories(run.path(name) + ".0/occupied");  // can neither be removed nor replaced
  write("lost\n");
  EXPECT_EQ(run.read_file("/tmp/log"), "1\n");
  std::filesystem::remove_all(run.path(name) + ".0");
  write("2\n");
  EXPECT_THAT(files(), ElementsAre(Pair("", "2\n"), Pair(".0", "1\n")));
}

TEST_F(ElogFile, NamesThatAreTooLongOrCannotBeOpened) {
  const std::string longest = name + std::string(kElogFileNameMax - name.size(), 'x');
  ASSERT_EQ(longest.size(), 245u);
  ElogFileCfg cfg = {longest.c_str(), 0, 1, false};
  elog_file_init(&cfg);
  for (const char* line : {"1\n", "2\n"}) write(line);
  const std::string tail = longest.substr(name.size());
  EXPECT_THAT(files(), ElementsAre(Pair(tail, "2\n"), Pair(tail + ".0", "1\n")));

  for (const std::string& bad :
       {longest + 'x', std::string(4000, '/'), std::string(), run.path("/missing/log")}) {
    cfg.name = bad.c_str();
    elog_file_config(&cfg);
    write("lost\n");
    EXPECT_TRUE(bad.size() <= kElogFileNameMax || !elog_file_rotate());
  }
  EXPECT_EQ(files().size(), 2u);
}

TEST_F(ElogFile, FileIsNotInherited) {
  const ElogFileCfg cfg = {name.c_str(), 100, 0, false};
  elog_file_init(&cfg);
  for (const auto& entry : std::filesystem::directory_iterator("/proc/self/fd")) {
    std::error_code ended;
    if (!std::filesystem::equivalent(entry.path(), run.path(name), ended)) continue;
    EXPECT_EQ(fcntl(std::stoi(entry.path().filename()), F_GETFD), FD_CLOEXEC);
    return;
  }
  FAIL() << "the file is not open";
}

TEST_F(ElogFile, LoggerWritesToIt) {
  ElogFileCfg cfg = {name.c_str(), 100, 0, false};
  elog_init(&cfg, nullptr);  // not enabled
  elog_start();
  elog_output(ELOG_LVL_INFO, "NO_TAG", "f.c", "func", 7, "nowhere");
  elog_deinit();
  cfg.enabled = true;
  elog_init(&cfg, nullptr);
  elog_output(ELOG_LVL_INFO, "NO_TAG", "f.c", "func", 7, "message");
  elog_deinit();
  EXPECT_THAT(files(), ElementsAre(Pair("", "message\n")));
}

}  // namespace
