#include "support/support_dump.h"

#include <sys/time.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>

#include "platform/output.h"
#include "platform/sys.h"

namespace {

constexpr long kBackupSize = 0x100000;

struct TimeOfDay {
  int seconds, microseconds;
};

TimeOfDay time_of_day() {
  timeval now;
  gettimeofday(&now, nullptr);
  return {static_cast<int>(now.tv_sec), static_cast<int>(now.tv_usec)};
}

// In bytes, or -1 when the file cannot be opened.
long file_size(const char* path) {
  std::FILE* file = sys::fopen(path, "rbe");
  if (file == nullptr) return -1;
  std::fseek(file, 0, SEEK_END);
  const long size = std::ftell(file);
  std::fclose(file);
  return size;
}

int move_to_backup(const char* path) {
  char command[132];
  const int length = std::snprintf(command, sizeof(command), "mv  %s  %s.bak", path, path);
  if (length < 0 || static_cast<size_t>(length) >= sizeof(command)) return -1;
  sys::system(command);
  return 0;
}

}  // namespace

void print_timestamp() {
  const TimeOfDay now = time_of_day();
  output_format(STDERR_FILENO, "\033[1;31m[%d.%06d] \033[0m", now.seconds, now.microseconds);
}

void print_hex(const u8* buf, i32 len) {
  for (i32 row = 0; row < len; row += 16) {
    OutputText text;
    for (i32 i = row; i < std::min(len, row + 16); ++i) text.add("\033[0;34m%02x  \033[0m", buf[i]);
    text.add("\n");
    text.send(STDOUT_FILENO);
  }
}

void hex_to_file(const char* path, const u8* buf, i32 len, const char* tag) {
  const TimeOfDay now = time_of_day();
  std::FILE* file = sys::fopen(path, "ab+e");
  if (file == nullptr) return;
  std::fprintf(file, "[%d.%06d]", now.seconds, now.microseconds);
  if (tag != nullptr) std::fprintf(file, "%s:", tag);
  for (i32 i = 0; i < len; ++i) std::fprintf(file, i % 16 == 15 ? "%02x  \n\t\t" : "%02x  ", buf[i]);
  std::fprintf(file, "\n");
  std::fclose(file);
}

void text_to_file(const char* path, const char* buf, i32 len, const char* tag) {
  const TimeOfDay now = time_of_day();
  std::FILE* file = sys::fopen(path, "at+e");
  if (file == nullptr) return;
  std::fprintf(file, "[%d.%06d]", now.seconds, now.microseconds);
  if (tag != nullptr) std::fprintf(file, "%s:\n", tag);
  if (buf != nullptr && len > 0) {
    std::fwrite(buf, 1, static_cast<size_t>(len), file);
    if (buf[len - 1] != '\n') std::fprintf(file, "\n");
  }
  std::fclose(file);
}

int append_line_with_backup(const char* path, const char* line) {
  if (file_size(path) > kBackupSize && move_to_backup(path) < 0) return -1;
  std::FILE* file = sys::fopen(path, "at+e");
  if (file == nullptr) return -1;
  if (line == nullptr) return 0;
  std::fprintf(file, "%s\n", line);
  std::fclose(file);
  return 0;
}
