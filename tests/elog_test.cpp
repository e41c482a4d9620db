#include "elog/elog.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/msg.h>
#include <sys/time.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstring>
#include <functional>
#include <future>
#include <optional>
#include <string>
#include <thread>
#include <tuple>
#include <vector>

#include "elog/elog_assert.h"
#include "elog/elog_port.h"
#include "elog/elog_record.h"
#include "elog/elog_utils.h"
#include "elog/plugins/file/elog_file.h"
#include "sim/run.h"

namespace {

using namespace std::chrono_literals;
using testing::ElementsAre;
using testing::MatchesRegex;
using Texts = std::vector<std::string>;

const std::string kTime = "[0-9]{4}-[0-9]{2}-[0-9]{2} [0-9]{2}:[0-9]{2}:[0-9]{2} [0-9]{6}";

std::string pid_text(pid_t pid = getpid()) {
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
    for (int i = 0; i < 500; std::this_thread::sleep_for(10ms), i++) {
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
    for (u8 level = 0; level < ELOG_LVL_TOTAL_NUM; level++) elog_set_fmt(level, 0);
  }

  sim::Run run;
  int queue = msgget(sim::run_key(kElogQueueKey), IPC_CREAT | 0600);
};

void log_text(u8 level, const char* tag, const char* text) {
  elog_output(level, tag, "f.c", "func", 7, "%s", text);
}
void log_text(const char* text) { log_text(ELOG_LVL_INFO, "NO_TAG", text); }

TEST_F(Elog, LinesOfThisSystem) {
  log_module_init(0xA00 + ELOG_LVL_VERBOSE);
  const std::string start = "\\[" + kTime + " " + pid_text() + "\\]";
  for (const auto& [level, line, shown] :
       std::vector<std::tuple<u8, long, std::string>>{{ELOG_LVL_ASSERT, 1, "\\[A\\]\\[func:1\\]"},
                                                      {ELOG_LVL_ERROR, 9999, "\\[E\\]\\[func:9999\\]"},
                                                      {ELOG_LVL_WARN, 12345, "\\[W\\]\\[func:1234\\]"},
                                                      {ELOG_LVL_WARN, -12345, "\\[W\\]\\[func:-123\\]"},
                                                      {ELOG_LVL_INFO, 1, "\\[I\\]"},
                                                      {ELOG_LVL_DEBUG, 1, "\\[D\\]"},
                                                      {ELOG_LVL_VERBOSE, 1, "\\[V\\]"}}) {
    elog_output(level, "NO_TAG", "f.c", "func", line, "%s %d\n", "text", 5);
    const auto record = take();
    ASSERT_TRUE(record);
    EXPECT_EQ(record->type, 1);
    EXPECT_EQ(record->level, level);
    EXPECT_THAT(record->text, MatchesRegex(start + shown + "text 5\n\n"));
  }
  log_module_set_level(0x300 + ELOG_LVL_INFO);
  log_text(ELOG_LVL_DEBUG, "NO_TAG", "below");
  EXPECT_FALSE(take());
}

TEST_F(Elog, LayoutFollowsTheMask) {
  start_bare();
  const std::string pid = pid_text(), tid = "tid:[0-9]{5}";
  for (const auto& [mask, shown] : std::vector<std::pair<u32, std::string>>{
           {0, ""},
           {ELOG_FMT_TAG, ""},
           {ELOG_FMT_LVL, "\\[I\\]"},
           {ELOG_FMT_TIME, "\\[" + kTime + "\\]"},
           {ELOG_FMT_T_INFO, "\\[" + tid + "\\]"},
           {ELOG_FMT_TIME | ELOG_FMT_T_INFO, "\\[" + kTime + " " + tid + "\\]"},
           {ELOG_FMT_P_INFO | ELOG_FMT_T_INFO, "\\[" + pid + " " + tid + "\\]"},
           {ELOG_FMT_DIR, "\\[f.c\\]"},
           {ELOG_FMT_LINE, "\\[7\\]"},
           {ELOG_FMT_DIR | ELOG_FMT_FUNC, "\\[f.c func\\]"},
           {ELOG_FMT_DIR | ELOG_FMT_LINE, "\\[f.c:7\\]"},
           {0xFF, "\\[" + kTime + " " + pid + " " + tid + "\\]\\[I\\]\\[f.c func:7\\]"}}) {
    elog_set_fmt(ELOG_LVL_INFO, mask);
    log_text("text");
    EXPECT_THAT(texts(), ElementsAre(MatchesRegex(shown + "text\n"))) << mask;
  }
}

TEST_F(Elog, TimeIsTheClocks) {
  const auto now = [] {
    timeval clock;
    char text[32];
    const std::time_t second = std::time(nullptr);
    gettimeofday(&clock, nullptr);
    std::tm local;
    std::strftime(text, sizeof(text), "%Y-%m-%d %T", localtime_r(&second, &local));
    return std::pair{std::string(text), clock.tv_usec};
  };
  for (int i = 0; i < 3; i++, std::this_thread::sleep_for(550ms)) {
    const auto before = now();
    const std::string shown = elog_port_get_time();
    const auto after = now();
    EXPECT_LE(before.first, shown.substr(0, 19));
    EXPECT_LE(shown.substr(0, 19), after.first);
    if (before.second > after.second) continue;  // a second ended meanwhile
    EXPECT_LE(before.second, std::stol(shown.substr(20)));
    EXPECT_LE(std::stol(shown.substr(20)), after.second);
  }
}

TEST_F(Elog, LongLinesAreCut) {
  start_bare();
  for (const std::size_t length : {0, 1, 510, 511, 512, 513, 4000}) {
    log_text(std::string(length, 'x').c_str());
    EXPECT_THAT(texts(), ElementsAre(std::string(std::min<std::size_t>(length, 511), 'x') + '\n'));
  }
  elog_set_fmt(ELOG_LVL_INFO, ELOG_FMT_FUNC);
  for (const std::size_t length : {508, 510, 511, 600}) {
    elog_output(ELOG_LVL_INFO, "NO_TAG", "f.c", std::string(length, 'y').c_str(), 7, "message");
    const std::string whole = "[" + std::string(length, 'y') + "]message";
    EXPECT_THAT(texts(), ElementsAre(whole.substr(0, 511) + '\n'));
  }
}

TEST_F(Elog, TextThatCannotBeFormattedIsZeros) {
  start_bare();
  const wchar_t bad[] = {0xDC80, 0};
  elog_output(ELOG_LVL_INFO, "NO_TAG", "f.c", "func", 7, "%ls", bad);
  elog_raw_output(ELOG_LVL_INFO, "%ls", bad);
  EXPECT_THAT(texts(), ElementsAre(std::string(511, '\0') + '\n', std::string(512, '\0')));
}

TEST_F(Elog, RawTextIsSentAsItIs) {
  start_bare();
  elog_set_filter(ELOG_LVL_INFO, "tag", "keyword");
  elog_set_fmt(ELOG_LVL_ERROR, 0xFF);
  elog_raw_output(ELOG_LVL_DEBUG, "above the filter");
  elog_raw_output(ELOG_LVL_ERROR, "%d", 17);
  const auto record = take();
  ASSERT_TRUE(record);
  EXPECT_EQ(record->level, ELOG_LVL_DEBUG);
  EXPECT_EQ(record->text, "17");
  for (const std::size_t length : {511, 512, 2000})
    elog_raw_output(0, "%s", std::string(length, 'x').c_str());
  const std::string most(511, 'x');
  EXPECT_THAT(texts(), ElementsAre(most, most + '\0', most + '\0'));
}

TEST_F(Elog, TagAndKeywordFilters) {
  start_bare();
  struct Case {
    const char *filter_tag, *filter_keyword, *tag, *text;
    bool passes;
  };
  for (const Case& c :
       std::vector<Case>{{"", "", "NO_TAG", "text", true},
                         {"TAG", "", "NO_TAG", "text", true},
                         {"NO_TAGS", "", "NO_TAG", "text", false},
                         {"sixteen_letters_", "", "my_sixteen_letters_x", "text", true},
                         {"sixteen_letters_", "", "sixteen_letters", "text", false},
                         {"sixteen_letters_and_more", "", "sixteen_letters_", "text", true},
                         {"", "xt", "NO_TAG", "text", true},
                         {"", "NO_TAG", "NO_TAG", "text", false},
                         {"", "func", "NO_TAG", "text", true},
                         {"", "sixteen_letters_", "NO_TAG", "my sixteen_letters_", true},
                         {"", "sixteen_letters_", "NO_TAG", "my sixteen_letters", false},
                         {"", "sixteen_letters_and_more", "NO_TAG", "sixteen_letters_", true}}) {
    elog_set_fmt(ELOG_LVL_INFO, ELOG_FMT_FUNC);
    elog_set_filter(ELOG_LVL_VERBOSE, c.filter_tag, c.filter_keyword);
    log_text(ELOG_LVL_INFO, c.tag, c.text);
    EXPECT_EQ(texts().size(), c.passes ? 1 : 0) << c.filter_tag << '/' << c.filter_keyword << '/' << c.text;
  }
}

TEST_F(Elog, TagLevels) {
  EXPECT_EQ(elog_get_filter_tag_lvl("a"), 5);
  elog_set_filter_tag_lvl("a", 1);  // too early
  start_bare();
  EXPECT_EQ(elog_get_filter_tag_lvl("a"), 5);
  elog_set_filter_tag_lvl("unknown", 5);
  for (const char* tag : {"a", "sixteen_letters_1", "c", "d", "e", "sixth"}) elog_set_filter_tag_lvl(tag, 2);
  EXPECT_EQ(elog_get_filter_tag_lvl("sixteen_letters_2"), 2);  // the same in the first 16 characters
  EXPECT_EQ(elog_get_filter_tag_lvl("e"), 2);
  EXPECT_EQ(elog_get_filter_tag_lvl("sixth"), 5);
  elog_set_filter_tag_lvl("c", 3);
  elog_set_filter_tag_lvl("a", 5);
  elog_set_filter_tag_lvl("sixth", 0);  // into the free place
  EXPECT_EQ(elog_get_filter_tag_lvl("a"), 5);
  EXPECT_EQ(elog_get_filter_tag_lvl("sixth"), 0);
  log_text(ELOG_LVL_INFO, "c", "c info");
  log_text(ELOG_LVL_DEBUG, "c", "c debug");
  log_text(ELOG_LVL_WARN, "d", "d warn");
  log_text(ELOG_LVL_INFO, "d", "d info");
  EXPECT_THAT(texts(), ElementsAre("c info\n", "d warn\n"));
}

TEST_F(Elog, Hexdump) {
  start_bare();
  std::vector<u8> bytes(65535, 'z');
  for (u8 i = 0; i < 20; i++) bytes[i] = static_cast<u8>(i < 2 ? 0x1F + i : i < 4 ? 0x7C + i : 0x30 + i);
  elog_hexdump(ELOG_LVL_WARN, "name", 16, bytes.data(), 20);
  EXPECT_THAT(texts(),
              ElementsAre("[W]HEX name: 0000-000F: 1F 20 7E 7F 34 35 36 37  38 39 3A 3B 3C 3D 3E 3F    "
                          ". ~.456789:;<=>?\n",
                          "[W]HEX name: 0010-001F: 40 41 42 43 " +
                              std::string(4 * 3 + 1 + 8 * 3 + 1 + 2, ' ') + "@ABC\n"));
  elog_hexdump(ELOG_LVL_WARN, "name", 0, bytes.data(), 20);
  elog_hexdump(ELOG_LVL_WARN, "name", 16, bytes.data(), 0);
  elog_set_filter_lvl(ELOG_LVL_INFO);
  elog_hexdump(ELOG_LVL_DEBUG, "name", 16, bytes.data(), 20);
  elog_set_filter_tag("other");
  elog_hexdump(ELOG_LVL_WARN, "name", 16, bytes.data(), 20);
  EXPECT_THAT(texts(), ElementsAre());
  elog_set_filter_tag("");

  const std::string name(600, 'n');
  elog_hexdump(ELOG_LVL_WARN, name.c_str(), 1, bytes.data(), 1);
  EXPECT_THAT(texts(), ElementsAre("[W]HEX " + name.substr(0, 511 - 7) + '\n'));
  for (unsigned width = 1; width < 256; width++) {
    elog_hexdump(ELOG_LVL_WARN, "name", static_cast<u8>(width), bytes.data() + 32, static_cast<u16>(width));
    const auto record = take();
    ASSERT_TRUE(record);
    const std::size_t whole = 24 + width * 3 + width / 8 + 2 + width + 1;
    EXPECT_EQ(record->text.size(), std::min<std::size_t>(whole, 512));
    EXPECT_EQ(record->text.back(), '\n');
  }

  testing::internal::CaptureStdout();
  log_module_set_console(1);
  elog_hexdump(ELOG_LVL_WARN, "last", 200, bytes.data(), 65535);  // the last line passes the 16-bit edge
  EXPECT_THAT(testing::internal::GetCapturedStdout(), testing::HasSubstr("HEX last: FF78-1003F: 7A"));
}

TEST_F(Elog, ReadsLevelAndTagOfALine) {
  for (u8 level = 0; level < ELOG_LVL_TOTAL_NUM; level++) elog_set_fmt(level, ELOG_FMT_LVL | ELOG_FMT_TAG);
  for (const std::string line : {"A", "E", "W", "I", "D", "V", "B", "X", "a", "[W]text"}) {
    const auto place = std::string("AEWIDV").find(line[0]);
    EXPECT_EQ(elog_find_lvl(line.c_str()), place == line.npos ? -1 : static_cast<int>(place)) << line;
  }
  EXPECT_EQ(elog_find_lvl(""), -1);
  for (const auto& [line, length] : std::vector<std::pair<std::string, int>>{{"[I]NO_TAG text", 6},
                                                                             {"[I] text", 0},
                                                                             {"[I]fifteen_letters text", 15},
                                                                             {"[I]sixteen_letters_ text", -1},
                                                                             {"[I]tag", -1},
                                                                             {"[I]", -1},
                                                                             {"[I", -1},
                                                                             {"", -1}}) {
    const std::vector<char> exact(line.c_str(), line.c_str() + line.size() + 1);  // its end is guarded
    std::size_t found = 99;
    const char* tag = elog_find_tag(exact.data(), ELOG_LVL_INFO, &found);
    EXPECT_EQ(tag, length < 0 ? nullptr : exact.data() + 3) << line;
    EXPECT_EQ(found, length < 0 ? 99 : static_cast<std::size_t>(length)) << line;
  }
}

TEST(ElogUtils, Copies) {
  char to[600] = {};
  EXPECT_EQ(elog_strcpy(0, to, "abc"), 3u);
  EXPECT_EQ(elog_strcpy(0, to, ""), 0u);
  EXPECT_EQ(elog_strcpy(510, to, "wxyz"), 2u);
  EXPECT_EQ(elog_strcpy(512, to, "mn"), 0u);
  EXPECT_STREQ(to, "wxc");
  EXPECT_EQ(elog_cpyln(to, "ab\ncd", 5), 3u);
  EXPECT_EQ(elog_cpyln(to + 3, "efgh", 2), 2u);
  EXPECT_STREQ(to, "ab\nef");

  for (const std::size_t distance : {1, 3, 4, 5, 8, 24}) {
    for (const std::size_t count : {0, 1, 9, 10, 17, 20}) {
      alignas(4) char one[64] = "0123456789abcdefghijklmnopqrstuvwxyz", other[64];
      std::memcpy(other, one, sizeof(one));
      for (std::size_t i = 0; i < count; i++) other[distance + i] = other[i];
      EXPECT_EQ(elog_memcpy(one + distance, one, count), one + distance);
      EXPECT_EQ(std::memcmp(one, other, sizeof(one)), 0) << distance << ' ' << count;
    }
  }
}

Texts broken;  // what the hook was told

void note_broken(const char* expression, const char* function, long line) {
  broken.push_back(std::string(expression) + " " + function + " " + std::to_string(line));
}

TEST_F(Elog, BrokenPreconditionsReachTheHook) {
  start_bare();
  elog_assert_set_hook(note_broken);
  char text[8];
  std::size_t length;
  const std::string level = "level <= ELOG_LVL_VERBOSE ", tag = "tag != ((void *)0) ";
  const std::string mask = "elog.enabled_fmt_set[";
  for (const auto& [call, told] : std::vector<std::pair<std::function<void()>, Texts>>{
           {[] { elog_set_fmt(200, 1); }, {level + "elog_set_fmt 322"}},
           {[] { elog_set_filter(6, "", ""); },
            {level + "elog_set_filter 335", level + "elog_set_filter_lvl 348"}},
           {[] { elog_set_filter_tag_lvl(nullptr, 6); },
            {level + "elog_set_filter_tag_lvl 429", tag + "elog_set_filter_tag_lvl 430"}},
           {[] { elog_set_filter_tag_lvl("a", 1), elog_get_filter_tag_lvl(nullptr); },
            {tag + "elog_get_filter_tag_lvl 482"}},
           {[] { log_text(200, "x", "dropped"); }, {level + "elog_output 590"}},
           {[] { elog_find_lvl(nullptr); },
            {"log elog_find_lvl 788", mask + "ELOG_LVL_ASSERT] & ELOG_FMT_LVL elog_find_lvl 790",
             mask + "ELOG_LVL_ERROR] & ELOG_FMT_LVL elog_find_lvl 791",
             mask + "ELOG_LVL_WARN] & ELOG_FMT_LVL elog_find_lvl 792",
             mask + "ELOG_LVL_INFO] & ELOG_FMT_LVL elog_find_lvl 793",
             mask + "ELOG_LVL_DEBUG] & ELOG_FMT_LVL elog_find_lvl 794",
             mask + "ELOG_LVL_VERBOSE] & ELOG_FMT_LVL elog_find_lvl 795"}},
           {[] { elog_find_tag(nullptr, 6, nullptr); },
            {"log elog_find_tag 834", "tag_len elog_find_tag 835",
             "lvl < ELOG_LVL_TOTAL_NUM elog_find_tag 836"}},
           {[&] { elog_find_tag("[I]tag text", 3, &length); },
            {mask + "lvl] & ELOG_FMT_TAG elog_find_tag 838"}},
           {[&] { elog_strcpy(0, nullptr, nullptr); }, {"dst elog_strcpy 44", "src elog_strcpy 45"}},
           {[&] { elog_cpyln(nullptr, nullptr, 5); }, {"line elog_cpyln 70", "log elog_cpyln 71"}},
           {[&] { elog_memcpy(text, nullptr, 5); }, {"src elog_memcpy 97"}},
           {[&] { elog_memcpy(nullptr, text, 5); }, {"dst elog_memcpy 96"}},
           {[&] { elog_file_write(nullptr, 5); },
            {"init_ok elog_file_write 109", "log elog_file_write 110"}}}) {
    broken.clear();
    call();
    EXPECT_EQ(broken, told);
  }
  // Level 200 through filters that were opened for it: the line comes without items.
  elog_set_filter_lvl(250);
  elog_set_filter_tag_lvl("x", 250);
  broken.clear();
  log_text(200, "x", "beyond");
  EXPECT_EQ(broken.front(), level + "elog_output 590");
  EXPECT_EQ(broken.back(), level + "get_fmt_enabled 741");
  elog_hexdump(200, "x", 1, "a", 1);
  EXPECT_THAT(texts(), ElementsAre("beyond\n", "HEX x: 0000-0000: 61   a\n"));
}

/// Without a hook: the text goes out, the thread stays, and others can still log.
TEST_F(Elog, BrokenPreconditionsWithoutHook) {
  const std::string name = run.path("/tmp/log");
  const ElogFileCfg file = {name.c_str(), 100, 1, true};
  for (const auto& [breach, end] : std::vector<std::pair<std::function<void()>, std::string>>{
           {[] { elog_set_fmt(6, 0); },
            "[elog elog_set_fmt:322](level <= ELOG_LVL_VERBOSE) has assert failed at elog_set_fmt:322.\n"},
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

TEST_F(Elog, LifeCycle) {
  log_text("before the start");
  const ElogMsgqCfg cfg = {1, kElogQueueKey, true};
  EXPECT_EQ(elog_init(nullptr, &cfg), 0);
  log_text("initialised only");
  elog_set_filter_lvl(ELOG_LVL_INFO);
  EXPECT_EQ(elog_init(nullptr, &cfg), 0);  // changes nothing
  elog_start();
  EXPECT_TRUE(elog_get_output_enabled());
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

TEST_F(Elog, ConsoleGetsTheLinesToo) {
  start_bare();
  testing::internal::CaptureStdout();
  log_text("quiet");
  log_module_set_console(256);
  log_text("loud");
  log_module_set_console(0);
  log_text("quiet");
  EXPECT_EQ(testing::internal::GetCapturedStdout(), "loud\n");
}

TEST_F(Elog, QueueIsCreatedWhenMissing) {
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

/// A queue can be full although it holds no bytes: empty messages count as well.
TEST_F(Elog, FullQueueNeverHoldsTheCaller) {
  start_bare();
  constexpr int kCapacity = 600;
  set_capacity(kCapacity);
  const long empty = 2;
  for (int i = 0; i < kCapacity; i++) ASSERT_EQ(msgsnd(queue, &empty, 0, IPC_NOWAIT), 0);
  alarm(5);
  log_text("lost");
  ASSERT_EQ(msgrcv(queue, std::vector<long>(1).data(), 0, 0, IPC_NOWAIT), 0);
  log_text("sent");
  ElogRecord record;
  EXPECT_EQ(msgrcv(queue, &record, sizeof(record.payload), 1, IPC_NOWAIT), 5 + 5);
}

/// A thread that takes the lock and gives it back; the caller sees whether that was possible.
std::future<void> visit_lock() {
  return std::async(std::launch::async, [] {
    elog_port_output_lock();
    elog_port_output_unlock();
  });
}

TEST_F(Elog, LockFollowsItsSwitch) {
  start_bare();
  elog_output_lock_enabled(false);
  elog_output_lock();
  visit_lock().get();  // not really taken
  elog_output_lock_enabled(true);
  auto visitor = visit_lock();
  EXPECT_EQ(visitor.wait_for(50ms), std::future_status::timeout);  // it is now
  elog_output_unlock();
  visitor.get();

  elog_output_lock();
  elog_output_lock_enabled(false);
  elog_output_lock();
  elog_output_unlock();
  visitor = visit_lock();
  EXPECT_EQ(visitor.wait_for(50ms), std::future_status::timeout);
  elog_output_lock_enabled(true);
  visitor.get();

  elog_port_output_lock();
  std::async(std::launch::async, elog_port_output_unlock).get();  // not that thread's to release
  visitor = visit_lock();
  EXPECT_EQ(visitor.wait_for(50ms), std::future_status::timeout);
  elog_port_output_unlock();
  visitor.get();

  // A tag level takes the lock at the port and leaves it there while locking is off.
  elog_output_lock_enabled(false);
  elog_get_filter_tag_lvl("tag");
  visitor = visit_lock();
  EXPECT_EQ(visitor.wait_for(50ms), std::future_status::timeout);
  log_text("one");
  log_text("two");
  elog_port_output_unlock();
  visitor.get();
  EXPECT_THAT(texts(), ElementsAre("one\n", "two\n"));
}

TEST_F(Elog, ThreadsLogWhileFiltersChange) {
  log_module_init(ELOG_LVL_VERBOSE);
  std::atomic<bool> running = true;
  std::vector<std::thread> threads;
  for (int i = 0; i < 3; i++) {
    threads.emplace_back([i] {
      for (int n = 0; n < 2000; n++) {
        log_text(static_cast<u8>(i), "NO_TAG", std::string(40, static_cast<char>('a' + i)).c_str());
      }
    });
  }
  std::thread changer([&] {
    for (u32 n = 0; running; n++) {
      elog_set_filter(static_cast<u8>(n % 6), n % 2 ? "TAG" : "NO_T", n % 3 ? "" : "]");
      elog_set_filter_tag_lvl("NO_TAG", static_cast<u8>(n % 6));
      elog_set_fmt(ELOG_LVL_WARN, n % 256);
      log_module_set_level(n % 6);
      std::this_thread::sleep_for(50us);
    }
  });
  std::size_t whole = 0;
  std::thread reader([&] {
    for (; running; std::this_thread::sleep_for(20us)) {
      for (const std::string& text : texts()) {
        EXPECT_THAT(text, MatchesRegex(".*(a{40}|b{40}|c{40})\n"));
        whole++;
      }
    }
  });
  for (std::thread& thread : threads) thread.join();
  running = false;
  changer.join();
  reader.join();
  EXPECT_GT(whole + texts().size(), 0u);
}

}  // namespace
