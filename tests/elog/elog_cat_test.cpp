// The log viewer as a program of its own, on the run's queue.
#include <gmock/gmock.h>
#include <pty.h>
#include <sys/msg.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstring>
#include <filesystem>
#include <string>
#include <string_view>

#include "elog/elog_record.h"
#include "sim/seam/run.h"

namespace {

std::string viewer() {
  return (std::filesystem::read_symlink("/proc/self/exe").parent_path() / "elog_cat_sim").string();
}

std::string read_all(int fd) {
  std::string text;
  char part[512];
  for (ssize_t size; (size = read(fd, part, sizeof(part))) > 0;) text.append(part, static_cast<size_t>(size));
  return text;
}

class ElogCatTest : public testing::Test {
 protected:
  void send(u8 level, std::string_view text, u32 claimed_extra = 0) const {
    ElogRecord record = {};
    record.type = kElogQueueType;
    record.payload.level = level;
    record.payload.length = static_cast<u32>(text.size()) + claimed_extra;
    std::memcpy(record.payload.text, text.data(), text.size());
    ASSERT_EQ(msgsnd(queue, &record, kElogHeaderSize + text.size(), IPC_NOWAIT), 0);
  }
  // Returns what it prints on both streams, followed by its exit status.
  static std::string run_viewer(const std::string& options) {
    std::FILE* pipe = popen((viewer() + ' ' + options + " 2>&1").c_str(), "r");
    std::string text = read_all(fileno(pipe));
    return text + "= " + std::to_string(WEXITSTATUS(pclose(pipe)));
  }

  sim::Run run;
  int queue = msgget(sim::run_key(kElogQueueKey), IPC_CREAT | 0600);
};

TEST_F(ElogCatTest, PrintsWhatTheFiltersAdmitAndTakesAllOffTheQueue) {
  const std::string_view kLines[] = {"spun\n", "lens failed\n", "slow\n", "B 30\n", "lens at 3\n", "raw\n\n"};
  const struct {
    const char* options;
    const char* printed;
  } kCases[] = {
      {"-e", "A spun\nE lens failed\nW slow\nI B 30\nD lens at 3\nV raw\n= 0"},
      {"--until-empty -l warn", "A spun\nE lens failed\nW slow\n= 0"},
      {"-e --level info --text=lens", "E lens failed\n= 0"},
      {"-e --count -t lens", "assert   0\nerror    1\nwarn     0\ninfo     0\ndebug    1\nverbose  0\n= 0"},
  };
  for (const auto& c : kCases) {
    for (u8 level = 0; const auto& line : kLines) send(level++, line);
    EXPECT_EQ(run_viewer(c.options), c.printed) << c.options;
    EXPECT_EQ(run_viewer("-e"), "= 0") << c.options;
  }
}

TEST_F(ElogCatTest, ShowsControlCharactersAsCodes) {
  using namespace std::string_view_literals;
  send(1, "a\tb~ \033[2J\n\x7f\x9b\xc3\xa4\0end\n"sv);
  EXPECT_EQ(run_viewer("-e"), "E a\tb~ \\x1b[2J\\x0a\\x7f\\x9b\\xc3\\xa4\\x00end\n= 0");
}

TEST_F(ElogCatTest, CountsRecordsThatMakeNoSense) {
  const std::string longest(kElogTextSize, 'x');
  send(3, longest);
  send(3, "short", 500);
  send(6, "no such level\n");
  const long type = kElogQueueType;
  ASSERT_EQ(msgsnd(queue, &type, 0, IPC_NOWAIT), 0);
  EXPECT_EQ(run_viewer("-e"), "elog_cat: 3 malformed records\nI " + longest + "\n= 0");
}

TEST_F(ElogCatTest, FollowsInColourOnATerminalUntilItIsEnded) {
  int terminal = -1;
  const std::string program = viewer();
  const pid_t child = forkpty(&terminal, nullptr, nullptr, nullptr);
  if (child == 0) {
    execl(program.c_str(), "elog_cat", static_cast<char*>(nullptr));
    _exit(127);
  }
  send(1, "first\n");
  const std::string_view kWanted = "\033[31mE first\033[0m\r\n";
  std::string shown;
  char c;
  while (shown.size() < kWanted.size() && read(terminal, &c, 1) == 1) shown += c;
  EXPECT_EQ(shown, kWanted);
  kill(child, SIGTERM);
  int status = -1;
  waitpid(child, &status, 0);
  EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0);
  close(terminal);
}

TEST_F(ElogCatTest, RefusesWhatItDoesNotKnow) {
  EXPECT_THAT(run_viewer("-l loud"), testing::EndsWith("= 2"));
  EXPECT_THAT(run_viewer("more"), testing::EndsWith("= 2"));
  msgctl(queue, IPC_RMID, nullptr);
  EXPECT_EQ(run_viewer("-e"), "elog_cat: no log queue (key 0x012345AB): start the service first\n= 1");
}

}  // namespace
