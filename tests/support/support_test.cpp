#include "support/support.h"

#include <signal.h>
#include <sys/prctl.h>
#include <sys/statvfs.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <filesystem>

#include "support/support_dump.h"
#include "support/support_shell.h"
#include "tests/support/support_fixture.h"

namespace {

using namespace std::string_literals;
using testing::MatchesRegex;

constexpr char kTime[] = "\\[[0-9]{10}\\.[0-9]{6}\\]";

class ToolboxTest : public SupportTest {
 protected:
  // A tool of the shell that runs `script` instead.
  void fake_tool(const std::string& name, const std::string& script) const {
    run_.write_file("/bin/" + name, "#!/bin/sh\n" + script);
    std::filesystem::permissions(run_.path("/bin/" + name), std::filesystem::perms::owner_all);
  }
  // From here on no shell command can be started.
  void break_shell() const { std::filesystem::remove(run_.path("/bin/reboot")); }
};

TEST_F(ToolboxTest, BannerIgnoresThePrintLevel) {
  print_level = 0;
  const std::string build = "2025-06-04 11:25:23\t1213\t" + std::to_string(getpid()) + '\n';
  const char* const paths_and_names[][2] = {{"/usr/bin/uvc_gadget", "uvc_gadget"},
                                            {"uvc_gadget", "uvc_gadget"},
                                            {"/uvc_gadget", "/uvc_gadget"},
                                            {"", ""},
                                            {nullptr, "NULL"}};
  for (const auto& [path, name_text] : paths_and_names) {
    const std::string name = name_text + "\n"s;
    EXPECT_EQ(reports_of([p = path] { process_info_print(p); }),
              (Reports{"\033[0;31m" + name + "\033[0m\033[0;35m" + build + "\033[0m",
                       info("support", "process_info_print", path ? 31 : 35, name).log +
                           info("support", "process_info_print", 40, build).log}));
  }
}

TEST_F(ToolboxTest, LevelFile) {
  const std::string chunk(255, 'x');  // a longer line counts as several
  const struct {
    std::string content;
    int print, log;
  } cases[] = {
      {"uvc_gadget=debug\n", 4, 4},
      {"other=debug\nuvc_gadget info", 3, 3},
      {"error uvc_gadget verbose\n", 1, 1},
      {"uvc_gadget=verbose\n", 1, 5},
      {"uvc_gadget_old=warn\nuvc_gadget=debug\n", 2, 2},
      {"uvc_gadget\nuvc_gadget=debug\n", 0, 0},
      {"UVC_GADGET=debug\nuvc_gadget=DEBUG\n", 0, 0},
      {"uvc_gadget" + chunk + "debug\n", 0, 0},
      {"\0uvc_gadget=debug\nuvc_gadget=warn\0debug\n"s, 2, 2},
  };
  for (const auto& c : cases) {
    run_.write_file("/opt/params/print.conf", c.content);
    print_level = 0;
    log_module_set_level(0);
    print_level_load("uvc_gadget");
    EXPECT_EQ(print_level, c.print) << c.content;
    for (u8 level = 0; level <= 5; ++level) elog_output(level, "NO_TAG", "f", "g", 1, "-");
    const std::string log = take_log();
    EXPECT_EQ(std::count(log.begin(), log.end(), '\n'), c.log + 1) << c.content;
  }
  std::filesystem::remove(run_.path("/opt/params/print.conf"));
  print_level = 7;
  print_level_load("uvc_gadget");
  EXPECT_EQ(print_level, 7);
}

TEST_F(ToolboxTest, ProcessName) {
  char name[kProcessNameSize];
  std::memset(name, '#', sizeof(name));
  prctl(PR_SET_NAME, "uvc gadget");
  EXPECT_EQ(get_process_name(name), 0);
  EXPECT_STREQ(name, "uvc");
  EXPECT_EQ(name[4], '#');  // nothing behind what was read
  fake_tool("awk", "head -c 1 /dev/zero");
  EXPECT_EQ(get_process_name(name), 0);
  EXPECT_STREQ(name, "");
  fake_tool("awk", "exit 0");
  EXPECT_EQ(get_process_name(name), -1);
  EXPECT_EQ(get_process_name(nullptr), -1);
}

TEST_F(ToolboxTest, ProcessesAndUsers) {
  // As busybox prints it.
  fake_tool("ps", R"(cat <<END
PID   USER     TIME  COMMAND
  101 root      0:01 /opt/vcam/uvc_gadget -x
  202 root      0:00 uvc_gadget
  303 root      0:00 uvc_gadget_old
END
)");
  fake_tool("fuser", "case $1 in *x) echo 12 34;; esac");
  EXPECT_EQ(process_is_running("uvc_gadget"), 1);
  EXPECT_EQ(process_find_pid("uvc_gadget"), 202);
  EXPECT_EQ(process_is_running("uvc"), 0);
  EXPECT_EQ(process_find_pid("uvc"), -1);
  EXPECT_EQ(process_is_running("uvc.gadget"), 0);  // a pattern for grep, but no text of a line
  EXPECT_EQ(file_in_use("/opt/file"), 0);
  // Command lines of up to 1023 characters are run.
  const std::string fits(1023 - std::strlen("fuser "), 'x'), longer = fits + 'x';
  EXPECT_EQ(file_in_use(fits.c_str()), 1);
  const std::string log = run_.shell_log();
  EXPECT_EQ(file_in_use(longer.c_str()), -1);
  EXPECT_EQ(process_is_running(longer.c_str()), 0);
  EXPECT_EQ(process_find_pid(longer.c_str()), -1);
  EXPECT_EQ(run_.shell_log(), log);
  break_shell();
  EXPECT_EQ(file_in_use("x"), -1);
  EXPECT_EQ(process_is_running("uvc_gadget"), 0);
  EXPECT_EQ(process_find_pid("uvc_gadget"), -1);
}

TEST_F(ToolboxTest, ConsoleDumps) {
  EXPECT_THAT(reports_of(print_timestamp).err, MatchesRegex("\033\\[1;31m"s + kTime + " \033\\[0m"));
  const auto dump = [](i32 len) {
    const u8 bytes[17] = {0xAB};
    testing::internal::CaptureStdout();
    print_hex(bytes, len);
    return testing::internal::GetCapturedStdout();
  };
  const std::string zero = "\033[0;34m00  \033[0m";
  std::string row = "\033[0;34mab  \033[0m";
  EXPECT_EQ(dump(-1) + dump(0), "");
  EXPECT_EQ(dump(1), row + '\n');
  for (int i = 1; i < 16; ++i) row += zero;
  EXPECT_EQ(dump(16), row + '\n');
  EXPECT_EQ(dump(17), row + '\n' + zero + '\n');
}

TEST_F(ToolboxTest, FileDumpsAppend) {
  const u8 bytes[17] = {0xAB, 1};
  hex_to_file("/opt/hex", bytes, 17, "tag");
  hex_to_file("/opt/hex", bytes, 1, nullptr);
  hex_to_file("/opt/hex", bytes, -1, nullptr);
  hex_to_file("/none/hex", bytes, 1, nullptr);
  EXPECT_THAT(run_.read_file("/opt/hex"),
              MatchesRegex(kTime + "tag:ab  01  (00  ){14}\n\t\t00  \n"s + kTime + "ab  \n" + kTime + "\n"));
  text_to_file("/opt/text", "one\ntwo\n", 8, "tag");
  text_to_file("/opt/text", "one\ntwo\n", 7, nullptr);
  text_to_file("/opt/text", nullptr, 5, nullptr);
  text_to_file("/opt/text", "x", 0, "end");
  text_to_file("/none/text", "x", 1, nullptr);
  EXPECT_THAT(run_.read_file("/opt/text"),
              MatchesRegex(kTime + "tag:\none\ntwo\n"s + kTime + "one\ntwo\n" + kTime + kTime + "end:\n"));
}

TEST_F(ToolboxTest, OversizedFileMovesAside) {
  const std::string limit(0x100000, 'x');
  const std::string path = "/opt/" + std::string(55, 'x'), longer = path + 'x';
  run_.write_file(path, limit);
  run_.write_file(path + ".bak", "older");
  EXPECT_EQ(append_line_with_backup(path.c_str(), ""), 0);
  EXPECT_EQ(run_.read_file(path), limit + '\n');
  EXPECT_EQ(append_line_with_backup(path.c_str(), "next"), 0);
  EXPECT_EQ(run_.read_file(path), "next\n");
  EXPECT_EQ(run_.read_file(path + ".bak"), limit + '\n');
  EXPECT_EQ(run_.shell_log(), "mv  " + path + "  " + path + ".bak\n");
  // One character more, and the command does not fit.
  EXPECT_EQ(append_line_with_backup(longer.c_str(), limit.c_str()), 0);
  EXPECT_EQ(append_line_with_backup(longer.c_str(), "next"), -1);
  EXPECT_EQ(run_.read_file(longer), limit + '\n');
  EXPECT_EQ(append_line_with_backup("/none/log", "x"), -1);
}

TEST_F(ToolboxTest, NullLineLeavesTheFileOpen) {
  const int closed_on_exec = open_files(FD_CLOEXEC);
  EXPECT_EQ(append_line_with_backup("/opt/log", nullptr), 0);
  EXPECT_EQ(open_files(FD_CLOEXEC), closed_on_exec + 1);
  files_kept_ = 1;
}

volatile sig_atomic_t children_seen = 0;

TEST_F(ToolboxTest, SystemRestsTheChildHandler) {
  struct sigaction handler = {};
  handler.sa_handler = [](int) { children_seen = children_seen + 1; };
  handler.sa_flags = SA_RESTART | SA_NOCLDSTOP;
  sigaction(SIGCHLD, &handler, nullptr);
  const int status = pox_system("exit 3");
  EXPECT_EQ(WEXITSTATUS(status), 3);
  EXPECT_EQ(children_seen, 0);
  struct sigaction after;
  sigaction(SIGCHLD, nullptr, &after);
  EXPECT_EQ(after.sa_handler, handler.sa_handler);
  EXPECT_EQ(after.sa_flags & (SA_RESTART | SA_NOCLDSTOP), SA_RESTART | SA_NOCLDSTOP);
  // With children reaped by the kernel, a plain system() could not tell the result.
  signal(SIGCHLD, SIG_IGN);
  const int unreaped = pox_system("exit 4");
  EXPECT_EQ(WEXITSTATUS(unreaped), 4);
  EXPECT_EQ(signal(SIGCHLD, SIG_DFL), SIG_IGN);
}

TEST_F(ToolboxTest, SystemReportsItsFailure) {
  break_shell();
  EXPECT_EQ(message_of([] { EXPECT_EQ(pox_system("ls"), -1); }), "Exec ls failed!\n");
}

TEST_F(ToolboxTest, DaemonLeadsItsSession) {
  int ends[2];
  ASSERT_EQ(pipe(ends), 0);
  std::fflush(nullptr);
  const pid_t parent = fork();
  if (parent == 0) {
    const bool leads = daemonize() == 0 && getsid(0) == getpid();
    _exit(write(ends[1], leads ? "y" : "n", 1) == 1 ? 0 : 1);
  }
  close(ends[1]);
  char answer = 0;
  EXPECT_EQ(read(ends[0], &answer, 1), 1);
  EXPECT_EQ(answer, 'y');
  close(ends[0]);
  int status = -1;
  EXPECT_EQ(waitpid(parent, &status, 0), parent);
  EXPECT_EQ(status, 0);
}

TEST_F(ToolboxTest, FreeSpace) {
  struct statvfs space;
  const std::string path = run_.path("/opt");
  const u32 free = free_space_check(path.c_str());
  ASSERT_EQ(statvfs(path.c_str(), &space), 0);
  // Others use the disk, too.
  EXPECT_LT(std::abs(static_cast<i32>(free - static_cast<u32>(space.f_bavail * space.f_frsize))), 1 << 26);
  EXPECT_EQ(message_of([] { EXPECT_EQ(free_space_check("/none"), kSpaceUnknown); }), "statvfs error.\n");
}

TEST_F(ToolboxTest, RoomInAQueue) {
  const int queue = msgget(IPC_PRIVATE, 0600);
  msqid_ds state;
  msgctl(queue, IPC_STAT, &state);
  state.msg_qbytes = 1000;
  msgctl(queue, IPC_SET, &state);
  const struct {
    u32 more_used, size;
    bool room;
  } cases[] = {{0, 1000, true}, {0, 1001, false},       {500, 500, true},
               {0, 501, false}, {0, 0xFFFFFFFF, false}, {1, 1, false}};
  struct {
    long type = 1;
    char text[500] = {};
  } message;
  for (const auto& c : cases) {
    if (c.more_used > 0) msgsnd(queue, &message, c.more_used, 0);
    EXPECT_EQ(message_of([&] { EXPECT_EQ(msg_size_check(queue, c.size), c.room ? 0 : -1) << c.size; }),
              c.room ? "" : "msg buffer overflow.\n");
  }
  msgctl(queue, IPC_RMID, nullptr);
  EXPECT_EQ(message_of([&] { EXPECT_EQ(msg_size_check(queue, 1), -1); }), "msgctl error.\n");
}

}  // namespace
