#include "sim/seam/run.h"

#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/msg.h>
#include <sys/shm.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <filesystem>
#include <optional>

#include "platform/sys.h"

namespace {

std::string output_of(const char* command) {
  std::FILE* pipe = sys::popen(command, "r");
  EXPECT_NE(pipe, nullptr) << command;
  if (!pipe) return {};
  std::array<char, 4096> text{};
  const size_t length = std::fread(text.data(), 1, text.size(), pipe);
  pclose(pipe);
  return {text.data(), length};
}

// Runs `body` in a forked child; true when it returns true.
template <typename Body>
bool in_child(const Body& body) {
  const pid_t child = fork();
  if (child == 0) _exit(body() ? 0 : 1);
  int status = 1;
  waitpid(child, &status, 0);
  return status == 0;
}

TEST(Run, FixedPathsLieUnderItsRoot) {
  sim::Run run;
  run.write_file("/opt/params/sub/print.conf", "text\n");
  EXPECT_EQ(run.read_file("/opt/params/sub/print.conf"), "text\n");
  for (const std::string& name :
       {std::string("/opt/params/sub/print.conf"), run.path("/opt/params/sub/print.conf")}) {
    std::FILE* file = sys::fopen(name.c_str(), "r");
    ASSERT_NE(file, nullptr) << name;
    EXPECT_EQ(std::fgetc(file), 't');
    std::fclose(file);
  }
  for (const char* absent : {"/etc/passwd", "/dev/video0", "/dev/tty", "/dev/i2c-3"}) {
    errno = 0;
    EXPECT_EQ(sys::open(absent, O_RDONLY), -1) << absent;
    EXPECT_EQ(errno, ENOENT) << absent;
  }
}

TEST(Run, KeysAndSemaphoresAreItsOwnAndGoWithIt) {
  std::optional<sim::Run> run(std::in_place);
  const std::string root = sim::run_root(), name = sim::run_semaphore("USB_VENC_R").c_str();
  const key_t key = sim::run_key(0x5678);
  EXPECT_GT(key, 0);
  EXPECT_EQ(sim::run_key(IPC_PRIVATE), IPC_PRIVATE);
  const int foreign = sys::msgget(1, IPC_CREAT | 0600);  // none of the camera's

  const int queue = sys::msgget(0x5678, IPC_CREAT | 0600);
  const int segment = sys::shmget(0x5678, 4096, IPC_CREAT | 0600);
  sem_t* semaphore = sys::sem_open("USB_VENC_R", O_CREAT, 0600, 3);
  ASSERT_NE(semaphore, SEM_FAILED);
  EXPECT_TRUE(in_child([&] {  // a child is in the same run
    int value = 0;
    sem_t* same = sys::sem_open("USB_VENC_R", 0, 0, 0);
    return sys::msgget(0x5678, 0) == queue && sys::shmget(0x5678, 0, 0) == segment && same != SEM_FAILED &&
           sem_getvalue(same, &value) == 0 && value == 3;
  }));
  EXPECT_EQ(msgget(key, 0), queue);
  sem_close(semaphore);

  run.reset();
  EXPECT_EQ(msgget(key, 0), -1);
  EXPECT_EQ(shmget(key, 0, 0), -1);
  EXPECT_EQ(sem_open(name.c_str(), 0), SEM_FAILED);
  EXPECT_EQ(msgctl(foreign, IPC_RMID, nullptr), 0) << "somebody else's";
  EXPECT_FALSE(std::filesystem::exists(root));
}

TEST(RunDeathTest, WithoutOneTheProgramEnds) {
  EXPECT_EXIT(sys::open("/dev/video0", O_RDWR), testing::ExitedWithCode(2), "no current run");
}

TEST(Run, ShellCommandsMeetTheRunsOwnPathsAndTools) {
  sim::Run run;
  run.write_file("/etc/srs.conf", "listen 1935;\n");
  const std::string root = sim::run_root();
  const struct {
    const char* command;
    std::string output;
  } rows[] = {
      {"cat /etc/srs.conf", "listen 1935;\n"},
      {"sed -i 's/1935/1936/' /etc/srs.conf; cat </etc/srs.conf", "listen 1936;\n"},
      {"echo /opt/a;echo \"/etc/b\" '/dev/c'", root + "/opt/a\n" + root + "/etc/b " + root + "/dev/c\n"},
      {"echo /dev/null /proc/1 a/etc/b x/opt/", "/dev/null /proc/1 a/etc/b x/opt/\n"},
      {"for tool in reboot insmod rmmod; do command -v $tool; done",
       root + "/bin/reboot\n" + root + "/bin/insmod\n" + root + "/bin/rmmod\n"},
  };
  std::string log;
  for (const auto& row : rows) {
    EXPECT_EQ(output_of(row.command), row.output) << row.command;
    log += row.command + std::string("\n");
  }
  EXPECT_EQ(sys::system(("echo " + root + "/etc/x | grep -q '^" + root + "/etc/x$'").c_str()), 0);
  EXPECT_EQ(sys::system("reboot\n"), 0);
  EXPECT_THAT(run.shell_log(), testing::StartsWith(log));
  EXPECT_THAT(run.shell_log(), testing::EndsWith("\nreboot\n"));
}

TEST(Run, NoCommandRunsOnceTheStandInsAreGone) {
  sim::Run run;
  std::filesystem::remove_all(run.path("/bin"));
  EXPECT_EQ(sys::system("touch /etc/trace"), -1);
  EXPECT_EQ(sys::popen("touch /etc/trace", "r"), nullptr);
  EXPECT_NE(access(run.path("/etc/trace").c_str(), F_OK), 0);
}

}  // namespace
