// Bytes that end exactly at a page without access: one byte past the end, read or written, stops the test.
#pragma once

#include <sys/mman.h>
#include <unistd.h>

#include <algorithm>
#include <cstddef>
#include <vector>

#include "common/bytes.h"

class GuardedBytes {
 public:
  explicit GuardedBytes(const std::vector<u8>& bytes) : size_(bytes.size()) {
    const std::size_t page = sysconf(_SC_PAGESIZE);
    mapped_ = (size_ + page - 1) / page * page + page;
    base_ =
        static_cast<u8*>(mmap(nullptr, mapped_, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0));
    mprotect(base_ + mapped_ - page, page, PROT_NONE);
    data_ = base_ + mapped_ - page - size_;
    std::copy(bytes.begin(), bytes.end(), data_);
  }
  ~GuardedBytes() { munmap(base_, mapped_); }
  GuardedBytes(const GuardedBytes&) = delete;

  u8* data() const { return data_; }
  std::vector<u8> bytes() const { return {data_, data_ + size_}; }

 private:
  std::size_t size_;
  std::size_t mapped_;
  u8* base_;
  u8* data_;
};
