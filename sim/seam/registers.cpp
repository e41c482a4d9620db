#include "sim/seam/registers.h"

#include <cstdio>
#include <cstring>
#include <mutex>
#include <span>
#include <unordered_map>
#include <vector>

#include "common/bytes.h"
#include "sim/seam/files.h"

namespace sim {
namespace {

constexpr size_t kLargest = 1 << 20;

struct Watched {
  off_t physical;
  std::vector<u32> words;  // as they were when the mapping was made
};

std::mutex watch_lock;
std::unordered_map<const void*, Watched> watched;

}  // namespace

void watch_registers(const void* mapping, size_t length, off_t physical) {
  if (length > kLargest) return;
  const std::span words(static_cast<const u32*>(mapping), length / sizeof(u32));
  const std::lock_guard guard(watch_lock);
  watched[mapping] = {physical, {words.begin(), words.end()}};
}

void log_changed_registers(const void* mapping) {
  const std::lock_guard guard(watch_lock);
  const auto found = watched.find(mapping);
  if (found == watched.end()) return;
  const auto& [physical, before] = found->second;
  const auto* now = static_cast<const u32*>(mapping);
  for (size_t i = 0; i < before.size(); ++i) {
    if (now[i] == before[i]) continue;
    char line[64];
    std::snprintf(line, sizeof(line), "0x%08llX: %x -> %x",
                  static_cast<unsigned long long>(physical) + i * sizeof(u32), before[i], now[i]);
    append_log(kRegisterLog, line);
  }
  watched.erase(found);
}

}  // namespace sim
