// What the fuzz targets share: an input that is taken apart byte by byte, memory that ends at a page without
// access, and the way to say that something does not hold. Each target has a folder of seeds; a name in .hex
// means that the file has the bytes in hexadecimal, with # before comments.
#pragma once

#include <sys/mman.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <span>
#include <string>

#include "common/bytes.h"

extern "C" int LLVMFuzzerTestOneInput(const u8* bytes, std::size_t size);

namespace fuzz {

/// Standard error as it was at start: the fuzzer closes it, for the service's prints.
inline const int kReport = dup(STDERR_FILENO);

inline void check(bool holds, const char* what) {
  if (holds) return;
  dprintf(kReport, "does not hold: %s\n", what);
  std::abort();
}

/// What is taken past the end is 0 or shorter.
class Input {
 public:
  Input(const u8* bytes, std::size_t size) : left_(bytes, size) {}

  bool empty() const { return left_.empty(); }
  template <typename Value>
  Value take() {
    Value value{};
    const auto from = bytes(sizeof(value));
    if (!from.empty()) std::memcpy(&value, from.data(), from.size());
    return value;
  }
  std::span<const u8> bytes(std::size_t count) {
    const auto taken = left_.first(std::min(count, left_.size()));
    left_ = left_.subspan(taken.size());
    return taken;
  }
  std::span<const u8> rest() { return bytes(left_.size()); }
  /// Up to the next newline, which is taken too.
  std::string line() {
    const auto end = std::find(left_.begin(), left_.end(), '\n');
    const auto taken = bytes(static_cast<std::size_t>(end - left_.begin()));
    bytes(1);
    return {taken.begin(), taken.end()};
  }
  /// Small numbers mostly, and any.
  u32 number() {
    const u8 small = take<u8>();
    return small < 0xF0 ? small : take<u32>();
  }

 private:
  std::span<const u8> left_;
};

/// Lends memory that ends at a page without access.
class Guarded {
 public:
  explicit Guarded(std::size_t most) : most_((most + kPage - 1) / kPage * kPage) {
    void* const memory =
        mmap(nullptr, most_ + kPage, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    check(memory != MAP_FAILED, "there is memory");
    end_ = static_cast<u8*>(memory) + most_;
    mprotect(end_, kPage, PROT_NONE);
  }
  /// The last `size` bytes; good until the next call.
  std::span<u8> lend(std::size_t size) const {
    check(size <= most_, "the target asks for no more than it has");
    return {end_ - size, size};
  }

 private:
  static constexpr std::size_t kPage = 4096;
  std::size_t most_;
  u8* end_;
};

}  // namespace fuzz
