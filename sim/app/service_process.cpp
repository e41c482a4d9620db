#include "sim/app/service_process.h"

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <string.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdlib>
#include <utility>

namespace sim {

namespace {

constexpr std::size_t kKeptLines = 12;
constexpr int kShortPipe = 4096;
constexpr char kDropNotice[] = "msg buffer overflow.";

[[noreturn]] void end_program(const char* what) {
  std::perror(what);
  std::exit(2);
}

// Does not return: the child becomes the program.
[[noreturn]] void become(char* const* command, int output, int error, bool closed) {
  setpgid(0, 0);
  prctl(PR_SET_PDEATHSIG, SIGKILL);
  signal(SIGPIPE, SIG_DFL);  // whatever the caller has set
  const int input = open("/dev/null", O_RDONLY);
  dup2(input, STDIN_FILENO);
  dup2(output, STDOUT_FILENO);
  dup2(error, STDERR_FILENO);
  for (int fd = 0; closed && fd <= STDERR_FILENO; ++fd) close(fd);
  execv(command[0], command);
  perror(command[0]);
  _exit(127);
}

}  // namespace

ServiceProcess::ServiceProcess(std::vector<std::string> command, std::FILE* log, bool echo, ServiceOutput how)
    : echo_(echo), log_(log) {
  std::vector<char*> words;
  for (std::string& word : command) words.push_back(word.data());
  words.push_back(nullptr);
  int output[2], error[2];
  if (pipe2(output, O_CLOEXEC) < 0 || pipe2(error, O_CLOEXEC) < 0) end_program("pipe");
  pid_ = fork();
  if (pid_ < 0) end_program("fork");
  if (pid_ == 0) become(words.data(), output[1], error[1], how == ServiceOutput::kClosed);
  setpgid(pid_, pid_);  // both sides do this, because either may run first
  close(output[1]);
  close(error[1]);
  streams_[0].fd = output[0];
  streams_[1].fd = error[0];
  if (how == ServiceOutput::kLogged) reader_ = std::thread([this] { read_output(); });
  for (Stream& stream : streams_) {
    if (how == ServiceOutput::kUnread) fcntl(stream.fd, F_SETPIPE_SZ, kShortPipe);
    if (how == ServiceOutput::kReaderGone) close(std::exchange(stream.fd, -1));
  }
}

ServiceProcess::~ServiceProcess() {
  stop(0);
  if (reader_.joinable()) reader_.join();
  for (const Stream& stream : streams_) {
    if (stream.fd >= 0) close(stream.fd);
  }
}

bool ServiceProcess::running() {
  int status;
  if (!status_ && waitpid(pid_, &status, WNOHANG) == pid_) {
    status_ = status;
    kill(-pid_, SIGKILL);  // together with what it started
    ended_ = true;
  }
  return !status_;
}

std::optional<double> ServiceProcess::stop(double limit, int signal) {
  using Clock = std::chrono::steady_clock;
  const auto begin = Clock::now();
  const auto waited = [&] { return std::chrono::duration<double>(Clock::now() - begin).count(); };
  if (running()) kill(pid_, signal);
  while (running() && waited() < limit) std::this_thread::sleep_for(std::chrono::milliseconds(1));
  if (!running()) return waited();
  kill(-pid_, SIGKILL);
  while (running()) std::this_thread::sleep_for(std::chrono::milliseconds(1));
  return std::nullopt;
}

std::string ServiceProcess::how_it_ended() const {
  if (!status_) return "still running";
  if (WIFEXITED(*status_)) return "exit status " + std::to_string(WEXITSTATUS(*status_));
  const int signal = WTERMSIG(*status_);
  return "killed by signal " + std::to_string(signal) + " (" + strsignal(signal) + ')';
}

bool ServiceProcess::ended_with_success() const {
  return status_ && WIFEXITED(*status_) && WEXITSTATUS(*status_) == 0;
}

std::string ServiceProcess::last_lines() const {
  std::lock_guard guard(lock_);
  std::string text;
  for (const std::string& line : last_lines_) text += line + '\n';
  return text;
}

// Reads until both streams have ended. A grandchild may hold them open; in that case, reads until the child
// has ended and no more output comes.
void ServiceProcess::read_output() {
  for (bool open[2] = {true, true}; open[0] || open[1];) {
    pollfd ready[2] = {{open[0] ? streams_[0].fd : -1, POLLIN, 0},
                       {open[1] ? streams_[1].fd : -1, POLLIN, 0}};
    const bool ended = ended_;
    if (poll(ready, 2, 100) <= 0 && ended) break;
    for (int i : {0, 1}) {
      if (ready[i].revents) open[i] = read_some(streams_[i]);
    }
  }
  for (const Stream& stream : streams_) {
    if (!stream.line.empty()) add_line(stream.line, &stream == &streams_[0]);
  }
  std::fflush(log_);
}

// Returns false at the stream's end.
bool ServiceProcess::read_some(Stream& stream) {
  char text[4096];
  const ssize_t length = read(stream.fd, text, sizeof(text));
  if (length <= 0) return false;
  stream.line.append(text, static_cast<std::size_t>(length));
  for (auto end = stream.line.find('\n'); end != std::string::npos; end = stream.line.find('\n')) {
    add_line(stream.line.substr(0, end), &stream == &streams_[0]);
    stream.line.erase(0, end + 1);
  }
  std::fflush(log_);
  return true;
}

void ServiceProcess::add_line(const std::string& line, bool standard_output) {
  std::fprintf(log_, "%s\n", line.c_str());
  if (echo_) std::fprintf(stderr, "%s\n", line.c_str());
  if (standard_output && line == kDropNotice) ++dropped_;
  std::lock_guard guard(lock_);
  last_lines_.push_back(line);
  if (last_lines_.size() > kKeptLines) last_lines_.pop_front();
}

}  // namespace sim
