#include "elog/plugins/file/elog_file.h"

#include <fcntl.h>
#include <unistd.h>

#include <cstdio>
#include <cstring>

#include "elog/elog_assert.h"
#include "platform/sys.h"

namespace {

constexpr char kElogFile[] = "plugins/file/elog_file";

bool init_ok;
std::FILE* file;
char name[kElogFileNameMax + 1];
u32 max_size;
i32 max_rotate;

struct FileLock {
  FileLock() { elog_file_port_lock(); }
  ~FileLock() { elog_file_port_unlock(); }
  FileLock(const FileLock&) = delete;
};

void open_current() {
  file = sys::fopen(name, "a+");
  if (file) fcntl(fileno(file), F_SETFD, FD_CLOEXEC);
}

void close_current() {
  if (file) std::fclose(file);
  file = nullptr;
}

}  // namespace

int elog_file_init(const ElogFileCfg* cfg) {
  if (init_ok) return 0;
  elog_file_port_init();
  elog_file_config(cfg);
  init_ok = true;
  return 0;
}

void elog_file_config(const ElogFileCfg* cfg) {
  FileLock lock;
  close_current();
  if (!cfg) return;
  const std::size_t length = std::strlen(cfg->name);
  const bool fits = length <= kElogFileNameMax;
  std::memcpy(name, fits ? cfg->name : "", fits ? length + 1 : 1);
  max_size = cfg->max_size;
  max_rotate = cfg->max_rotate;
  if (name[0] != '\0') open_current();
}

void elog_file_write(const char* log, std::size_t size) {
  ELOG_ASSERT(init_ok, 109);
  ELOG_ASSERT(log, 110);
  FileLock lock;
  if (!file || !log) return;
  std::fseek(file, 0, SEEK_END);
  if (std::ftell(file) > static_cast<i64>(max_size)) {
    if (max_rotate <= 0 || !elog_file_rotate() || !file) return;
  }
  std::fwrite(log, 1, size, file);
  std::fflush(file);
}

namespace {

bool readable(const char* path) {
  std::FILE* probe = sys::fopen(path, "r");
  if (probe) std::fclose(probe);
  return probe != nullptr;
}

// Writes the name of rotated file `number` to `path`; -1 means the current file.
bool make_path(char (&path)[kElogFilePathSize], i32 number) {
  const int length = number < 0 ? std::snprintf(path, sizeof(path), "%s", name)
                                : std::snprintf(path, sizeof(path), "%s.%d", name, number);
  return static_cast<std::size_t>(length) < sizeof(path);
}

bool move_file(i32 from, i32 to) {
  char old_path[kElogFilePathSize];
  char new_path[kElogFilePathSize];
  if (!make_path(old_path, from) || !make_path(new_path, to)) return false;
  if (readable(new_path)) sys::remove(new_path);
  return !readable(old_path) || sys::rename(old_path, new_path) >= 0;
}

}  // namespace

bool elog_file_rotate() {
  if (name[0] == '\0') return false;
  close_current();
  bool moved = true;
  for (i32 n = max_rotate - 1; n >= 0 && moved; --n) moved = move_file(n - 1, n);
  open_current();
  return moved;
}

void elog_file_deinit() {
  if (!init_ok) return;
  {
    FileLock lock;
    close_current();
    name[0] = '\0';
    max_size = 0;
    max_rotate = 0;
  }
  elog_file_port_deinit();
  init_ok = false;
}

int elog_file_port_init() { return 0; }
void elog_file_port_lock() {}
void elog_file_port_unlock() {}
void elog_file_port_deinit() {}
