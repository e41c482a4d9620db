// Word: one 32-bit word that one thread (or a signal handler) writes and others read.
#pragma once

#include <atomic>

#include "common/bytes.h"

/// Stores release, loads acquire: whoever sees config_changed set also sees the settings that were stored
/// before it. Signal handlers may use it.
class Word {
 public:
  constexpr Word(i32 value = 0) : value_(value) {}
  Word(const Word&) = delete;
  Word& operator=(const Word& other) { return *this = static_cast<i32>(other); }
  operator i32() const { return value_.load(std::memory_order_acquire); }
  Word& operator=(i32 value) {
    value_.store(value, std::memory_order_release);
    return *this;
  }

 private:
  std::atomic<i32> value_;
};
static_assert(sizeof(Word) == 4 && std::atomic<i32>::is_always_lock_free);
