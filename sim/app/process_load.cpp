#include "sim/app/process_load.h"

#include <unistd.h>

#include <fstream>
#include <sstream>
#include <string>

namespace sim {

namespace {

struct Times {
  char state = 'X';
  double seconds = 0;
};

Times times_of(const std::string& folder) {
  constexpr int kFieldsBetween = 10;  // state and utime
  std::ifstream file(folder + "/stat");
  std::string line;
  std::getline(file, line);
  Times times;
  if (line.empty()) return times;
  std::istringstream fields(line.substr(line.rfind(')') + 1));  // the name may have spaces
  fields >> times.state;
  std::string skipped;
  for (int i = 0; i < kFieldsBetween; ++i) fields >> skipped;
  double user = 0, system = 0;
  fields >> user >> system;
  times.seconds = (user + system) / static_cast<double>(sysconf(_SC_CLK_TCK));
  return times;
}

long kilobytes_of(const std::string& folder) {
  std::ifstream file(folder + "/statm");
  long size = 0, resident = 0;
  file >> size >> resident;
  return resident * sysconf(_SC_PAGESIZE) / 1024;
}

}  // namespace

void ProcessLoad::look(pid_t process) {
  const std::string folder = "/proc/" + std::to_string(process);
  const Times times = times_of(folder);
  running_ = times.state != 'X' && times.state != 'Z';
  kilobytes_ = running_ ? kilobytes_of(folder) : 0;
  const auto now = Clock::now();
  if (process != process_ || !running_) {
    percent_ = 0;
    process_ = process;
    since_ = now;
    seconds_ = times.seconds;
  }
  const double passed = std::chrono::duration<double>(now - since_).count();
  if (passed < 1) return;
  percent_ = 100 * (times.seconds - seconds_) / passed;
  since_ = now;
  seconds_ = times.seconds;
}

}  // namespace sim
