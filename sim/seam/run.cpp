#include "sim/seam/run.h"

#include <fcntl.h>
#include <semaphore.h>
#include <sys/mman.h>
#include <sys/msg.h>
#include <sys/shm.h>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <unistd.h>

#include <array>
#include <atomic>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <memory>

#include "elog/elog_record.h"
#include "ipc/msg_records.h"
#include "sim/seam/files.h"
#include "sim/seam/node_state.h"
#include "vencbuf/enc_frame.h"

namespace sim {
namespace {

namespace fs = std::filesystem;

constexpr char kRootPrefix[] = "camera-sim.";  // followed by the process id and six letters
constexpr char kRootVariable[] = "CAMERA_SIM_ROOT";
constexpr char kNumberVariable[] = "CAMERA_SIM_RUN";

// A prime below 2^9, so that a run's keys have room beside a process id of 22 bits.
constexpr key_t kKeys = 509;
constexpr key_t kCameraKeys[] = {VENC_RING_KEY, kFileMsgKey, kVeltoMsgKey, kSysMsgKey, kElogQueueKey};
constexpr bool all_differ() {
  for (const key_t& a : kCameraKeys)
    for (const key_t& b : kCameraKeys)
      if (&a != &b && a % kKeys == b % kKeys) return false;
  return true;
}
static_assert(all_differ());

constexpr pid_t kWholeMachine = 0;  // a number that no run has

struct Current {
  std::string root;
  pid_t number;
};
std::atomic<const Current*> own_run{nullptr};

[[noreturn]] void end_program(const char* message) {
  std::fprintf(stderr, "camera simulator: %s\n", message);
  std::exit(2);
}

Current inherited_run() {
  const char* root = std::getenv(kRootVariable);
  const char* number = std::getenv(kNumberVariable);
  if (!root || !number) end_program("no current run; create a sim::Run first");
  return {root, std::atoi(number)};
}

const Current& current() {
  if (const Current* own = own_run.load()) return *own;
  static const Current inherited = inherited_run();
  return inherited;
}

bool holds_programs(const std::string& folder) {
  struct statvfs info;
  return access(folder.c_str(), W_OK) == 0 && statvfs(folder.c_str(), &info) == 0 &&
         !(info.f_flag & ST_NOEXEC);
}

// Where a run's folder may be, the best place first.
std::array<std::string, 3> places() {
  const char* configured = std::getenv("TMPDIR");
  return {"/dev/shm", configured ? configured : "/tmp", "/tmp"};
}

std::string make_root() {
  for (const std::string& base : places()) {
    if (!holds_programs(base)) continue;
    std::string root =
        fs::canonical(base).string() + "/" + kRootPrefix + std::to_string(getpid()) + ".XXXXXX";
    if (mkdtemp(root.data())) return root;
  }
  end_program("cannot create a folder for the run");
}

void make_sparse_file(const std::string& name, off_t size) {
  const int fd = open(name.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0600);
  if (fd < 0 || ftruncate(fd, size) < 0) end_program("cannot create a device file of the run");
  close(fd);
}

void make_program(const std::string& name, const std::string& body) {
  std::ofstream(name) << "#!/bin/sh\n" << body;
  chmod(name.c_str(), 0700);
}

// Creates the programs that replace the PC's own tools: loading the gadget module creates the node, removing
// it removes the node, and reboot does nothing.
void make_programs(const std::string& root) {
  const std::string node = root + "/dev/video0";
  const auto for_module = [](const std::string& action) {
    return "case \"$*\" in *g_webcam.ko*) " + action + ";; esac\n";
  };
  make_program(root + "/bin/insmod", for_module("truncate -s " + std::to_string(kNodeFileSize) + ' ' + node));
  make_program(root + "/bin/rmmod", for_module("rm -f " + node));
  make_program(root + "/bin/reboot", "exit 0\n");
}

key_t moved_key(pid_t number, key_t key) {
  return static_cast<key_t>(static_cast<u32>(number) << 9 | static_cast<u32>(key) % kKeys);
}

void remove_key(key_t key) {
  if (const int queue = msgget(key, 0); queue >= 0) msgctl(queue, IPC_RMID, nullptr);
  if (const int segment = shmget(key, 0, 0); segment >= 0) shmctl(segment, IPC_RMID, nullptr);
}

void remove_ipc(pid_t number) {
  for (const key_t key : kCameraKeys) remove_key(moved_key(number, key));
  const std::string suffix = '.' + std::to_string(number);
  std::error_code ignored;
  for (const auto& entry : fs::directory_iterator("/dev/shm", ignored)) {
    const std::string name = entry.path().filename();
    if (name.starts_with("sem.") && name.ends_with(suffix)) sem_unlink(name.c_str() + 4);
    if (name == "camera_phys" + suffix) shm_unlink(name.c_str());
  }
}

void remove_dead_runs_in(const std::string& folder) {
  std::error_code ignored;
  for (const auto& entry : fs::directory_iterator(folder, ignored)) {
    const std::string name = entry.path().filename();
    if (!name.starts_with(kRootPrefix)) continue;
    const pid_t number = std::atoi(name.c_str() + std::strlen(kRootPrefix));
    if (number <= 0 || kill(number, 0) == 0 || errno != ESRCH) continue;
    remove_ipc(number);
    fs::remove_all(entry.path(), ignored);
  }
}

void fill(const std::string& root) {
  for (const char* folder :
       {"opt/params", "opt/base", "opt/vcam/ko/extdrv", "opt/vcam/www/config", "etc", "dev", "bin", "tmp"})
    fs::create_directories(root + '/' + folder);
  make_sparse_file(root + "/dev/mem", off_t{1} << 32);
  for (const char* bus : {"/dev/i2c-0", "/dev/i2c-1", "/dev/i2c-2"}) make_sparse_file(root + bus, 0);
  make_programs(root);
}

u32 access_register(u32 addr, const u32* value) {
  u32 word = 0;
  const int fd = open((run_root() + "/dev/mem").c_str(), O_RDWR | O_CLOEXEC);
  const ssize_t done = value ? pwrite(fd, value, sizeof(*value), addr) : pread(fd, &word, sizeof(word), addr);
  if (done != sizeof(word)) end_program("cannot access the run's registers");
  close(fd);
  return word;
}

}  // namespace

Run::Run() {
  if (own_run.load()) end_program("this process has a run already");
  const auto* made = new Current{make_root(), getpid()};
  remove_ipc(made->number);  // left by a dead process that had the same id
  remove_dead_runs_in(fs::path(made->root).parent_path());
  setenv(kRootVariable, made->root.c_str(), 1);
  setenv(kNumberVariable, std::to_string(made->number).c_str(), 1);
  own_run = made;
  fill(made->root);
  create_node_state();
  set_register(0x200F0074, 1);  // as the boot loader leaves them
  set_register(0x200F01A8, 1);
}

Run::~Run() {
  std::unique_ptr<const Current> mine(own_run.load());
  if (getpid() != mine->number) {
    (void)mine.release();
    return;
  }
  own_run = nullptr;
  unsetenv(kRootVariable);
  unsetenv(kNumberVariable);
  release_node_state();
  remove_ipc(mine->number);
  std::error_code ignored;
  fs::remove_all(mine->root, ignored);
}

std::string Run::path(std::string_view camera_path) const { return run_root() + std::string(camera_path); }

void Run::write_file(std::string_view camera_path, std::string_view content) const {
  fs::create_directories(fs::path(path(camera_path)).parent_path());
  std::ofstream(path(camera_path), std::ios::binary) << content;
}

std::string Run::read_file(std::string_view camera_path) const {
  std::ifstream file(path(camera_path), std::ios::binary);
  return {std::istreambuf_iterator<char>(file), {}};
}

std::string Run::shell_log() const { return read_file(kShellLog); }
std::string Run::register_log() const { return read_file(kRegisterLog); }
std::string Run::i2c_log() const { return read_file(kI2cLog); }

void remove_dead_runs() {
  for (const std::string& place : places()) remove_dead_runs_in(place);
}

u32 Run::register_value(u32 addr) const { return access_register(addr, nullptr); }
void Run::set_register(u32 addr, u32 value) const { access_register(addr, &value); }

void use_whole_machine() { own_run = new Current{"", kWholeMachine}; }

key_t run_key(key_t key) {
  if (key == IPC_PRIVATE || current().number == kWholeMachine) return key;
  return moved_key(current().number, key);
}

SemaphoreName run_semaphore(const char* name) {
  SemaphoreName own;
  const std::size_t length = std::snprintf(own.text, sizeof(own.text), "%s", name);
  const pid_t number = current().number;
  if (number != kWholeMachine) std::snprintf(own.text + length, sizeof(own.text) - length, ".%d", number);
  return own;
}

void remove_objects(key_t key) { remove_key(run_key(key)); }

const std::string& run_root() { return current().root; }

void append_log(const char* log, std::string line) {
  if (!line.ends_with('\n')) line += '\n';
  const int fd = open((run_root() + log).c_str(), O_WRONLY | O_APPEND | O_CREAT | O_CLOEXEC, 0600);
  if (fd < 0 || write(fd, line.data(), line.size()) < 0) std::perror("camera simulator: log of the run");
  if (fd >= 0) close(fd);
}

}  // namespace sim
