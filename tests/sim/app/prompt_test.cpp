// camera_sim at its prompt, which a script on standard input may take the place of.
#include "sim/app/prompt.h"

#include <fcntl.h>
#include <gmock/gmock.h>
#include <sys/file.h>
#include <sys/wait.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <iterator>

using testing::AllOf;
using testing::ContainsRegex;
using testing::HasSubstr;
using testing::Not;

namespace {

namespace fs = std::filesystem;

std::string program() { return fs::read_symlink("/proc/self/exe").replace_filename("camera_sim"); }

std::string contents(const fs::path& path) {
  std::ifstream file(path, std::ios::binary);
  return {std::istreambuf_iterator<char>(file), {}};
}

// Runs in a folder of its own.
class PromptTest : public testing::Test {
 protected:
  PromptTest() {
    char name[] = "/tmp/prompt-test.XXXXXX";
    folder = mkdtemp(name);
  }
  ~PromptTest() override { fs::remove_all(folder); }

  // The exit status; what was printed is in `output`.
  int run(const std::string& script, const std::string& options = "--prompt") {
    std::ofstream(folder / "script") << script;
    const std::string command =
        "cd " + folder.string() + " && " + program() + ' ' + options + " <script >output 2>&1";
    const int status = std::system(command.c_str());
    output = contents(folder / "output");
    return WEXITSTATUS(status);
  }

  fs::path folder;
  std::string output;
};

TEST_F(PromptTest, ServiceStartsAgainAfterItWasStoppedOrKilled) {
  EXPECT_EQ(run("service start\n"), 1);
  EXPECT_THAT(output, HasSubstr("the service runs already"));
  EXPECT_EQ(run("service stop\nservice start\npicture a.png\nservice kill\nservice start\npicture b.png\n"),
            0)
      << output;
  EXPECT_THAT(output, ContainsRegex("exit status 0, .*SIGTERM(.|\n)*killed by signal 9"));
}

TEST_F(PromptTest, ScriptDrivesTheCamera) {
  EXPECT_EQ(run("# two controls, then where the head went\n"
                "\n"
                "set brightness 12 pan_absolute 36000\n"
                "get brightness\n"
                "controls\n"
                "xu 9 len\n"
                "xu 24 set 01\n"
                "raw 0xA1 0x87 0x0200 0x0200 2\n"
                "wait 0.5\n"
                "look\n"
                "unplug\n"
                "plug\n"
                "fault server slow for 1s\n"
                "fault clear\n"
                "quit\n"
                "rubbish\n"),
            0)
      << output;
  EXPECT_THAT(output, ContainsRegex("SET_CUR +brightness = 12 .* sys 39 81 01 04 A4 00 00 00 0C FF"));
  EXPECT_THAT(output, HasSubstr("\nbrightness = 12\n"));
  EXPECT_THAT(output, ContainsRegex("\nbrightness +PU +0 +15 +1 +8 +12\n"));
  EXPECT_THAT(output, ContainsRegex("\npan_absolute +CT +-612000 +612000 +3600 "));
  EXPECT_THAT(output, ContainsRegex("\nwhite_balance_automatic +PU +- +- +- +1 +1\n"))
      << "limits that the camera does not give";
  EXPECT_THAT(output, HasSubstr("asked its shell for: reboot "));
  EXPECT_THAT(output, HasSubstr("[16 00]")) << "the length of the extension unit's selector 9";
  EXPECT_THAT(output, ContainsRegex("GET_DEF +brightness = 8 "));
  EXPECT_THAT(output, HasSubstr("pan 10.0 tilt 0.0"));
  EXPECT_THAT(output, AllOf(Not(HasSubstr("camera_sim>")), Not(HasSubstr("\nline "))));
}

TEST_F(PromptTest, ScriptGoesOnAfterCommandsThatFail) {
  EXPECT_EQ(run("set brightness 99\n"
                "set brightness\n"
                "set loudness 1\n"
                "dance\n"
                "stream yuy2 1920x1080\n"
                "fault thunder\n"
                "raw 0xA1 0x100 0 0 0\n"
                "unplug\n"
                "get brightness\n"
                "stream mjpeg\n"
                "plug\n"
                "get contrast\n"),
            1);
  const char* const complaints[] = {
      "line 1: brightness: 99 is outside 0 to 15; it reads 8\n",
      "line 2: usage: set NAME VALUE",
      "line 3: no such control: \"loudness\"",
      "line 4: no such command: \"dance\"",
      "line 5: the camera has no YUY2 1920x1080\n",
      "line 6: no such fault: \"thunder\"",
      "line 7: \"0x100\" is not a number up to 255\n",
      "line 9: the cable is unplugged",
      "line 10: the cable is unplugged",
      "\ncontrast = 8\n",
  };
  for (const char* complaint : complaints) EXPECT_THAT(output, HasSubstr(complaint));
}

// A wrong file or folder ends it before anything starts.
TEST_F(PromptTest, FilesAreTriedFirst) {
  EXPECT_EQ(run("", "--prompt --source script.txt"), 2);
  EXPECT_THAT(output, HasSubstr("--source \"script.txt\": No such file or directory\n"));
  std::ofstream(folder / "notes.txt") << "No picture.\n";
  EXPECT_EQ(run("", "--prompt --source notes.txt"), 2);
  EXPECT_THAT(output, HasSubstr("--source \"notes.txt\": not a picture"));
  EXPECT_EQ(run("", "--prompt --out notes.txt/out"), 2);
  EXPECT_THAT(output, HasSubstr("\"notes.txt/out\" cannot be made: Not a directory\n"));
}

TEST_F(PromptTest, RunsDoNotShareAFolder) {
  const int other = open(folder.c_str(), O_RDONLY | O_DIRECTORY);
  ASSERT_EQ(flock(other, LOCK_EX), 0);
  EXPECT_EQ(run("", "--prompt --out ."), 2);
  EXPECT_THAT(output, HasSubstr("another run is writing to \".\""));
  close(other);
}

}  // namespace
