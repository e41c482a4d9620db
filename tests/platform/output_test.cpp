// What happens to a message for each kind of standard error, and to the service's own messages if
// nobody reads them.
#include "platform/output.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <string>

namespace {

// Redirects standard error for its lifetime; `end` is where its reader reads.
class OutputTest : public testing::TestWithParam<const char*> {
 protected:
  void SetUp() override {
    alarm(60);  // whoever waits for a reader fails soon
    signal(SIGPIPE, SIG_DFL);
    output_init();
    int ends[2];
    const std::string kind = GetParam();
    if (kind == "socket") {
      ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM, 0, ends), 0);
    } else if (kind == "terminal") {
      ends[0] = posix_openpt(O_RDWR | O_NOCTTY);
      ASSERT_TRUE(ends[0] >= 0 && grantpt(ends[0]) == 0 && unlockpt(ends[0]) == 0);
      ends[1] = open(ptsname(ends[0]), O_RDWR | O_NOCTTY);
    } else {
      ASSERT_EQ(pipe(ends), 0);
      fcntl(ends[1], F_SETPIPE_SZ, 16384);
    }
    end = ends[0];
    fcntl(end, F_SETFL, O_NONBLOCK);
    dup2(ends[1], STDERR_FILENO);
    close(ends[1]);
    getrlimit(RLIMIT_NOFILE, &limit);
    if (kind == "pipe without descriptors") limit.rlim_cur = STDERR_FILENO + 1;  // to open it again
  }
  void TearDown() override { dup2(saved, STDERR_FILENO); }

  void put(std::string_view message) const {
    rlimit usual;
    getrlimit(RLIMIT_NOFILE, &usual);
    setrlimit(RLIMIT_NOFILE, &limit);
    output(STDERR_FILENO, message);
    setrlimit(RLIMIT_NOFILE, &usual);
  }

  std::string read_all() const {
    std::string all;
    char text[4096];
    for (ssize_t size; (size = read(end, text, sizeof(text))) > 0;) all.append(text, size);
    return all;
  }

  const int saved = dup(STDERR_FILENO);
  int end = -1;
  rlimit limit = {};
};

TEST_P(OutputTest, FullOneDropsAndCountsAndAReaderThatEndedHarmsNobody) {
  const int flags = fcntl(STDERR_FILENO, F_GETFL);
  put("first ");
  output_format(STDERR_FILENO, "%s %d|", "second", 2);
  EXPECT_EQ(read_all(), "first second 2|");

  constexpr long kSent = 2000;
  for (int i = 0; i < kSent; ++i) put(std::string(1000, 'x'));
  std::string text = read_all();
  errno = ENOENT;
  put("last");
  EXPECT_EQ(errno, ENOENT);
  text += read_all();
  const long whole = std::ranges::count(text, 'x') / 1000;
  EXPECT_TRUE(text.ends_with("\nlast"));
  const std::string notice = "uvc_gadget: messages lost: ";
  long lost = 0;
  for (auto at = text.find(notice); at != text.npos; at = text.find(notice, at + 1))
    lost += std::stol(text.substr(at + notice.size()));
  EXPECT_GT(lost, kSent / 2);
  EXPECT_TRUE(whole + lost == kSent || (GetParam() == std::string("terminal") && whole + lost > kSent))
      << whole << " + " << lost << "; a terminal may take a part of a message";
  EXPECT_EQ(fcntl(STDERR_FILENO, F_GETFL), flags) << "other programs share them";

  close(end);
  for (int i = 0; i < 3; ++i) put("nobody reads this");
}

INSTANTIATE_TEST_SUITE_P(Each, OutputTest,
                         testing::Values("pipe", "socket", "terminal", "pipe without descriptors"));

TEST(Output, FileIsWrittenAtItsEndAndWhatIsTooLongIsCut) {
  const int saved = dup(STDERR_FILENO);
  std::FILE* file = std::tmpfile();
  ASSERT_EQ(write(fileno(file), "before ", 7), 7);
  dup2(fileno(file), STDERR_FILENO);
  output(STDERR_FILENO, "after");
  OutputText long_text;
  for (int i = 0; i < 3; ++i) long_text.add("%s", std::string(1000, 'y').c_str());
  long_text.send(STDERR_FILENO);
  char text[4096];
  const ssize_t size = pread(fileno(file), text, sizeof(text), 0);
  EXPECT_EQ(std::string(text, size), "before after" + std::string(kOutputSize - 1, 'y'));
  dup2(saved, STDERR_FILENO);
  std::fclose(file);

  output_init();
  int status = std::system("kill -PIPE $$");
  EXPECT_TRUE(WIFSIGNALED(status)) << "commands keep the default action";
}

}  // namespace
