// The PC side of the seam: fixed paths lead to files under the run's root, keys and semaphore names get the
// run's number, calls on device descriptors go to the models, and shell commands find replacements of the
// PC's own tools.
#include <fcntl.h>
#include <linux/videodev2.h>
#include <sys/ioctl.h>
#include <sys/mman.h>
#include <sys/msg.h>
#include <sys/shm.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <string>
#include <string_view>

#include "platform/fopen_cloexec.h"
#include "platform/spawn_shell.h"
#include "platform/sys.h"
#include "sim/seam/files.h"
#include "sim/seam/i2c_bus.h"
#include "sim/seam/node_calls.h"
#include "sim/seam/node_state.h"
#include "sim/seam/registers.h"
#include "sim/seam/run.h"

namespace sim {
namespace {

enum class Device { kNone, kNode, kRegisters, kI2c };

// Identifies the file of a descriptor, because dup2 may have replaced it.
struct FileId {
  dev_t device = 0;
  ino_t number = 0;
  bool operator==(const FileId&) const = default;
};

// The simulated devices that the service has open, by descriptor. The thread that opens or closes the
// descriptor writes its entry; others see it through the kind.
struct Descriptor {
  std::atomic<Device> device{Device::kNone};
  FileId file;
  int node_open = -1;  // the node's own number for this open
  I2cClient i2c;
};
Descriptor descriptors[1024];

std::atomic<unsigned> sleep_divisor{1};
std::atomic<bool> empty_polls_are_calls{false};
std::atomic<unsigned long> sleep_calls{0};
std::atomic<unsigned long> sleep_microseconds{0};

FileId file_of(int fd) {
  struct stat info;
  return ::fstat(fd, &info) == 0 ? FileId{info.st_dev, info.st_ino} : FileId{};
}

Descriptor* entry(int fd) {
  return fd >= 0 && static_cast<size_t>(fd) < std::size(descriptors) ? &descriptors[fd] : nullptr;
}

// Returns the descriptor's entry if it leads to the device, else null.
Descriptor* device_entry(int fd, Device device) {
  Descriptor* found = entry(fd);
  return found && found->device == device && found->file == file_of(fd) ? found : nullptr;
}

bool stays_as_it_is(std::string_view path) {
  if (!path.starts_with('/')) return true;
  for (const std::string_view real : {"/proc/", "/dev/null", "/dev/pts/"})
    if (path.starts_with(real)) return true;
  return path.starts_with(run_root());
}

std::string pc_path(const char* path) { return stays_as_it_is(path) ? std::string(path) : run_root() + path; }

Device device_at(std::string_view pc_path) {
  if (!pc_path.starts_with(run_root())) return Device::kNone;
  pc_path.remove_prefix(run_root().size());
  if (pc_path == "/dev/video0") return Device::kNode;
  if (pc_path == "/dev/mem") return Device::kRegisters;
  return pc_path.starts_with("/dev/i2c-") ? Device::kI2c : Device::kNone;
}

// Registers a fresh descriptor. Returns 0, or -1 with errno if the device refuses.
int enter(int fd, Device device, std::string_view path) {
  Descriptor* found = entry(fd);
  if (!found) return 0;
  found->device = Device::kNone;
  if (device == Device::kNode && (found->node_open = node_open(fd)) < 0) return -1;
  if (device == Device::kI2c) found->i2c = {.bus = static_cast<u32>(path.back() - '0')};
  found->file = file_of(fd);
  found->device = device;
  return 0;
}

// True for a word of a command that names a fixed path of the camera.
bool is_camera_path(std::string_view word) {
  if (stays_as_it_is(word)) return false;
  for (const std::string_view folder : {"/opt/", "/etc/", "/dev/", "/sbin/"})
    if (word.starts_with(folder)) return true;
  return false;
}

// Returns the command for the PC's shell: paths of the camera lead to files under the root, and tools that
// would affect the PC are found in the run's own folder first.
std::string pc_command(std::string_view command) {
  std::string result = "PATH=" + run_root() + "/bin:$PATH; export PATH; ";
  char before = ' ';
  for (size_t i = 0; i < command.size(); before = command[i++]) {
    const bool at_start = std::strchr(" \t\n;&|()<>'\"`=", before) != nullptr;
    if (at_start && is_camera_path(command.substr(i))) result += run_root();
    result += command[i];
  }
  return result;
}

// Logs the command. Returns false if the replacements are gone: nothing may run then, since it would be the
// PC's own tools.
bool may_run(const char* command) {
  append_log(kShellLog, command);
  return ::access((run_root() + "/bin/reboot").c_str(), X_OK) == 0;
}

}  // namespace

void set_sleep_divisor(unsigned divisor) { sleep_divisor = divisor; }
void make_empty_polls_calls() { empty_polls_are_calls = true; }
SleepCount sleep_count() { return {sleep_calls, sleep_microseconds}; }

}  // namespace sim

namespace sys {

using sim::Device;

int open(const char* path, int flags, mode_t mode) {
  const std::string name = sim::pc_path(path);
  const int fd = ::open(name.c_str(), flags, mode);
  if (fd < 0 || sim::enter(fd, sim::device_at(name), name) == 0) return fd;
  const int error = errno;
  ::close(fd);
  errno = error;
  return -1;
}

int close(int fd) {
  if (auto* node = sim::device_entry(fd, Device::kNode)) sim::node_close(node->node_open);
  if (auto* known = sim::entry(fd)) known->device = Device::kNone;
  return ::close(fd);
}

int ioctl(int fd, unsigned long request, void* argument) {
  if (auto* known = sim::entry(fd); known && known->device == Device::kNode) {
    if (request == VIDIOC_DQEVENT && sim::node_has_no_event(known->node_open)) {
      if (sim::empty_polls_are_calls) ::ioctl(fd, request, argument);  // a file of the PC refuses it
      errno = ENOENT;
      return -1;
    }
    if (known->file == sim::file_of(fd)) return sim::node_ioctl(known->node_open, request, argument);
  }
  if (auto* i2c = sim::device_entry(fd, Device::kI2c)) return sim::i2c_ioctl(i2c->i2c, request, argument);
  return ::ioctl(fd, request, argument);
}

int poll(pollfd* files, nfds_t count, int timeout_ms) {
  if (auto* node = sim::device_entry(files->fd, Device::kNode))
    return sim::node_poll(node->node_open, *files, timeout_ms);
  return ::poll(files, count, timeout_ms);
}

void* mmap(void* address, size_t length, int protection, int flags, int fd, off_t offset) {
  if (auto* node = sim::device_entry(fd, Device::kNode))
    if (sim::node_mmap(node->node_open, length, protection, flags, offset) < 0) return MAP_FAILED;
  const bool registers = sim::device_entry(fd, Device::kRegisters);
  if (const int error = registers ? sim::fault_of(sim::CallKind::kMemMmap) : 0) {
    errno = error;
    return MAP_FAILED;
  }
  void* mapping = ::mmap(address, length, protection, flags, fd, offset);
  if (registers && mapping != MAP_FAILED) sim::watch_registers(mapping, length, offset);
  return mapping;
}

int munmap(void* address, size_t length) {
  sim::log_changed_registers(address);
  return ::munmap(address, length);
}

ssize_t read(int fd, void* buffer, size_t length) {
  auto* i2c = sim::device_entry(fd, Device::kI2c);
  return i2c ? sim::i2c_read(i2c->i2c, buffer, length) : ::read(fd, buffer, length);
}

ssize_t write(int fd, const void* buffer, size_t length) {
  auto* i2c = sim::device_entry(fd, Device::kI2c);
  return i2c ? sim::i2c_write(i2c->i2c, buffer, length) : ::write(fd, buffer, length);
}

std::FILE* fopen(const char* path, const char* mode) {
  return fopen_cloexec(sim::pc_path(path).c_str(), mode);
}
int remove(const char* path) { return std::remove(sim::pc_path(path).c_str()); }
int rename(const char* from, const char* to) {
  return std::rename(sim::pc_path(from).c_str(), sim::pc_path(to).c_str());
}

int system(const char* command) {
  if (!sim::may_run(command)) return -1;
  return std::system(sim::pc_command(command).c_str());
}

pid_t spawn(const char* command) {
  return sim::may_run(command) ? spawn_shell(sim::pc_command(command).c_str()) : -1;
}

int launch(const char* command) {
  return sim::may_run(command) ? launch_shell(sim::pc_command(command).c_str()) : -1;
}

std::FILE* popen(const char* command, const char* mode) {
  if (!sim::may_run(command)) return nullptr;
  return ::popen(sim::pc_command(command).c_str(), mode);
}

int usleep(useconds_t microseconds) {
  ++sim::sleep_calls;
  sim::sleep_microseconds += microseconds;
  const useconds_t shorter = microseconds / sim::sleep_divisor;
  return shorter ? ::usleep(shorter) : 0;  // usleep(0) takes as long as the kernel's timer slack
}

int msgget(key_t key, int flags) { return ::msgget(sim::run_key(key), flags); }
int shmget(key_t key, size_t size, int flags) { return ::shmget(sim::run_key(key), size, flags); }
sem_t* sem_open(const char* name, int flags, mode_t mode, unsigned value) {
  return ::sem_open(sim::run_semaphore(name).c_str(), flags, mode, value);
}

}  // namespace sys
