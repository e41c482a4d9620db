// The files that a run of camera_sim leaves to other programs.
#include <gmock/gmock.h>
#include <pwd.h>
#include <signal.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <thread>

using testing::AllOf;
using testing::HasSubstr;
using testing::Not;
using testing::StartsWith;

namespace {

namespace fs = std::filesystem;

std::string contents(const fs::path& path) {
  std::ifstream file(path, std::ios::binary);
  return {std::istreambuf_iterator<char>(file), {}};
}

class CameraSimTest : public testing::Test {
 protected:
  CameraSimTest() {
    char name[] = "/tmp/camera-sim-test.XXXXXX";
    folder = mkdtemp(name);
  }
  ~CameraSimTest() override { fs::remove_all(folder); }

  // Returns the exit status of camera_sim, run in the folder.
  int run(const std::string& arguments) const {
    const fs::path program = fs::read_symlink("/proc/self/exe").replace_filename("camera_sim");
    const int status =
        std::system(("cd " + folder.string() + " && " + program.string() + ' ' + arguments).c_str());
    return WEXITSTATUS(status);
  }
  std::string file(const char* name) const { return contents(folder / name); }

  fs::path folder;
};

TEST_F(CameraSimTest, StandardOutputHasNothingButTheStream) {
  EXPECT_EQ(run("--format mjpeg --size 320x240 --duration 0.5 --to - >stream 2>said"), 0) << file("said");
  EXPECT_THAT(file("stream"), AllOf(StartsWith("\xFF\xD8"), Not(HasSubstr("whole"))));
  EXPECT_THAT(file("said"), HasSubstr("whole"));
  EXPECT_EQ(run("--format mjpeg --size 320x240 --duration 20 --to - 2>said | head -c 100 >stream"), 0);
  EXPECT_THAT(file("said"), HasSubstr("copy cut"));
  std::ofstream(folder / "script") << "stream mjpeg 320x240 for 0.5 to -\nget brightness\n";
  EXPECT_EQ(run("--prompt --to - <script >stream 2>said"), 0);
  EXPECT_THAT(file("stream"), AllOf(StartsWith("\xFF\xD8"), Not(HasSubstr("brightness"))));
}

TEST_F(CameraSimTest, ResultsOfAFailedRun) {
  std::ofstream(folder / "script") << "set loudness 1\n";
  EXPECT_EQ(run("--prompt --results r.json --results r.xml <script >said 2>&1"), 1);
  EXPECT_THAT(file("r.json"),
              AllOf(HasSubstr("\"good\": false"), HasSubstr("no such control: \\\"loudness\\\"")));
  EXPECT_THAT(file("r.xml"), HasSubstr("failures=\"1\""));
  EXPECT_THAT(file("r.xml"), HasSubstr("<failure message=\"no such control: &quot;loudness&quot;;"));
}

TEST_F(CameraSimTest, OptionsThatDoNotGoTogetherAreRefused) {
  for (const char* arguments :
       {"--without server --fault 'server slow'", "--without encoder --control", "--without cable",
        "--prompt --to x", "--listen --prompt", "--listen camera --stay"})
    EXPECT_EQ(run(arguments + std::string(" 2>said")), 2) << arguments;
}

TEST_F(CameraSimTest, KilledRunLeavesNothingBehind) {
  ASSERT_EQ(run("--stay --out o >said 2>&1 &"), 0);
  const auto within_20_s = [](auto condition) {
    for (int i = 0; i < 2000 && !condition(); ++i) std::this_thread::sleep_for(std::chrono::milliseconds(10));
    return condition();
  };
  const std::string folder_name = "/camera-sim.";
  const auto names_it = [&] { return file("said").find(folder_name) != std::string::npos; };
  ASSERT_TRUE(within_20_s(names_it)) << file("said");
  const pid_t process = std::stoi(file("said").substr(file("said").find(folder_name) + folder_name.size()));
  const auto left = [&] {
    std::string names;
    for (const auto& entry : fs::directory_iterator("/dev/shm")) {
      const std::string name = entry.path().filename();
      if (name.find('.' + std::to_string(process)) != std::string::npos) names += name + ' ';
    }
    return names;
  };
  EXPECT_NE(left(), "");
  kill(process, SIGKILL);
  EXPECT_TRUE(within_20_s([&] { return left().empty(); })) << left();
}

TEST_F(CameraSimTest, RootBySudoWritesAsTheUser) {
  const passwd* const user = getpwnam("nobody");
  if (geteuid() != 0 || !user) GTEST_SKIP() << "only root can become somebody else";
  fs::permissions(folder, fs::perms::all);
  setenv("SUDO_USER", user->pw_name, 1);
  run("--prompt --out o </dev/null >/dev/null 2>&1");
  struct stat made;
  ASSERT_EQ(stat((folder / "o").c_str(), &made), 0);
  EXPECT_EQ(made.st_uid, user->pw_uid);
  EXPECT_EQ(made.st_gid, user->pw_gid);
}

TEST_F(CameraSimTest, ReplayShowsAnswersThatDiffer) {
  std::ofstream(folder / "recording")
      << "1 1000 S Ci:1:002:0 s a1 87 0200 0200 0002 2 <\n1 1200 C Ci:1:002:0 0 2 = 0800\n"
         "2 2000 S Ci:1:002:0 s a1 81 0200 0300 0002 2 <\n2 2200 C Ci:1:002:0 0 2 = 0700\n"
         "3 3000 S Ii:1:002:1 -115:1 8 <\n";
  EXPECT_EQ(run("--replay recording >said 2>&1"), 1);
  EXPECT_THAT(file("said"), HasSubstr("2 of 2 requests, 1 answered as recorded"));
  EXPECT_EQ(run("--replay said >error 2>&1"), 1);
  EXPECT_THAT(file("error"), HasSubstr("no replay: "));
}

}  // namespace
