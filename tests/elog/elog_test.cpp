#include "elog/elog.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstring>
#include <functional>
#include <string>
#include <tuple>
#include <vector>

#include "elog/elog_assert.h"
#include "elog/elog_utils.h"
#include "elog/plugins/file/elog_file.h"
#include "tests/elog/elog_fixture.h"

namespace {

using testing::ElementsAre;
using testing::MatchesRegex;

const std::string kTime = "[0-9]{4}-[0-9]{2}-[0-9]{2} [0-9]{2}:[0-9]{2}:[0-9]{2} [0-9]{6}";

TEST_F(Elog, LinesOfThisSystem) {
  log_module_init(0xA00 + ELOG_LVL_VERBOSE);
  const std::string start = "\\[" + kTime + " " + pid_text() + "\\]";
  for (const auto& [level, line, shown] :
       std::vector<std::tuple<u8, long, std::string>>{{ELOG_LVL_ASSERT, 1, "\\[A\\]\\[func:1\\]"},
                                                      {ELOG_LVL_WARN, 12345, "\\[W\\]\\[func:1234\\]"},
                                                      {ELOG_LVL_WARN, -12345, "\\[W\\]\\[func:-123\\]"},
                                                      {ELOG_LVL_INFO, 1, "\\[I\\]"},
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
           {ELOG_FMT_TIME | ELOG_FMT_T_INFO, "\\[" + kTime + " " + tid + "\\]"},
           {ELOG_FMT_P_INFO | ELOG_FMT_T_INFO, "\\[" + pid + " " + tid + "\\]"},
           {ELOG_FMT_LINE, "\\[7\\]"},
           {ELOG_FMT_DIR | ELOG_FMT_FUNC, "\\[f.c func\\]"},
           {ELOG_FMT_DIR | ELOG_FMT_LINE, "\\[f.c:7\\]"},
           {0xFF, "\\[" + kTime + " " + pid + " " + tid + "\\]\\[I\\]\\[f.c func:7\\]"}}) {
    elog_set_fmt(ELOG_LVL_INFO, mask);
    log_text("text");
    EXPECT_THAT(texts(), ElementsAre(MatchesRegex(shown + "text\n"))) << mask;
  }
}

TEST_F(Elog, LongLinesAreCut) {
  start_bare();
  for (const std::size_t length : {0, 511, 512, 4000}) {
    log_text(std::string(length, 'x').c_str());
    EXPECT_THAT(texts(), ElementsAre(std::string(std::min<std::size_t>(length, 511), 'x') + '\n'));
  }
  elog_set_fmt(ELOG_LVL_INFO, ELOG_FMT_FUNC);
  for (const std::size_t length : {509, 510, 511, 600}) {
    elog_output(ELOG_LVL_INFO, "NO_TAG", "f.c", std::string(length, 'y').c_str(), 7, "message");
    const std::string whole = "[" + std::string(length, 'y') + "]message";
    EXPECT_THAT(texts(), ElementsAre(whole.substr(0, 511) + '\n'));
  }
}

TEST_F(Elog, TextThatCannotBeFormattedEndsInZeros) {
  start_bare();
  const wchar_t bad[] = {0xDC80, 0};
  elog_output(ELOG_LVL_INFO, "NO_TAG", "f.c", "func", 7, "%d %ls", 17, bad);
  elog_raw_output(ELOG_LVL_INFO, "%ls", bad);
  EXPECT_THAT(texts(), ElementsAre("17 " + std::string(508, '\0') + '\n', std::string(512, '\0')));
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
                         {"sixteen_letters_", "", "my_sixteen_letters_x", "text", true},
                         {"sixteen_letters_", "", "sixteen_letters", "text", false},
                         {"sixteen_letters_and_more", "", "sixteen_letters_", "text", true},
                         {"", "NO_TAG", "NO_TAG", "text", false},
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
  for (const char* tag : {"a", "sixteen_letters_1", "c", "d", "e", "sixth"}) elog_set_filter_tag_lvl(tag, 2);
  EXPECT_EQ(elog_get_filter_tag_lvl("sixteen_letters_2"), 2);  // the same in the first 16 characters
  EXPECT_EQ(elog_get_filter_tag_lvl("sixth"), 5);
  elog_set_filter_tag_lvl("c", 3);
  elog_set_filter_tag_lvl("a", 5);
  elog_set_filter_tag_lvl("sixth", 0);  // into the free place
  EXPECT_EQ(elog_get_filter_tag_lvl("a"), 5);
  EXPECT_EQ(elog_get_filter_tag_lvl("sixth"), 0);
  log_text(ELOG_LVL_INFO, "c", "info");
  log_text(ELOG_LVL_DEBUG, "c", "debug");
  EXPECT_THAT(texts(), ElementsAre("info\n"));
}

TEST_F(Elog, Hexdump) {
  start_bare();
  std::vector<u8> bytes(65535, 'z');
  for (u8 i = 0; i < 20; ++i) bytes[i] = static_cast<u8>(i < 2 ? 0x1F + i : i < 4 ? 0x7C + i : 0x30 + i);
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
  for (const unsigned width : {1, 8, 117, 118, 255}) {
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
  for (u8 level = 0; level < ELOG_LVL_TOTAL_NUM; ++level) elog_set_fmt(level, ELOG_FMT_LVL | ELOG_FMT_TAG);
  EXPECT_EQ(elog_find_lvl("A"), ELOG_LVL_ASSERT);
  EXPECT_EQ(elog_find_lvl("Verbose"), ELOG_LVL_VERBOSE);
  EXPECT_EQ(elog_find_lvl("[W]text"), -1);
  for (const auto& [line, length] : std::vector<std::pair<std::string, int>>{{"[I]NO_TAG text", 6},
                                                                             {"[I]fifteen_letters text", 15},
                                                                             {"[I]sixteen_letters_ text", -1},
                                                                             {"[I]tag", -1},
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
      for (std::size_t i = 0; i < count; ++i) other[distance + i] = other[i];
      EXPECT_EQ(elog_memcpy(one + distance, one, count), one + distance);
      EXPECT_EQ(std::memcmp(one, other, sizeof(one)), 0) << distance << ' ' << count;
    }
  }
}

int breaches = 0;
std::string last_breach;

void note_breach(const char* expression, const char* function, long line) {
  ++breaches;
  last_breach = std::string(expression) + " " + function + " " + std::to_string(line);
}

TEST_F(Elog, BrokenPreconditionsReachTheHookAndComeBack) {
  start_bare();
  elog_assert_set_hook(note_breach);
  const std::pair<std::function<void()>, int> calls[] = {
      {[] { elog_set_filter(6, "", ""); }, 2},         {[] { log_text(200, "x", "dropped"); }, 1},
      {[] { elog_find_tag(nullptr, 6, nullptr); }, 3}, {[] { elog_set_filter_tag_lvl(nullptr, 6); }, 2},
      {[] { elog_get_filter_tag_lvl(nullptr); }, 1},   {[] { elog_find_lvl(nullptr); }, 7},
      {[] { elog_strcpy(0, nullptr, nullptr); }, 2},   {[] { elog_cpyln(nullptr, nullptr, 5); }, 2},
      {[] { elog_memcpy(nullptr, nullptr, 5); }, 2},   {[] { elog_file_write(nullptr, 5); }, 2},
  };
  for (std::size_t i = 0; i < std::size(calls); ++i) {
    breaches = 0;
    calls[i].first();
    EXPECT_EQ(breaches, calls[i].second) << "call " << i;
  }
  EXPECT_EQ(last_breach, "log elog_file_write 110");
  // Level 200 through filters that were opened for it: the line comes without items.
  elog_set_filter_lvl(250);
  elog_set_filter_tag_lvl("x", 250);
  log_text(200, "x", "beyond");
  elog_hexdump(200, "x", 1, "a", 1);
  EXPECT_THAT(texts(), ElementsAre("beyond\n", "HEX x: 0000-0000: 61   a\n"));
}

}  // namespace
