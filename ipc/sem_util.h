// The lock handle that keeps this process's threads from interleaving their transactions on one channel. It
// is a mutex of this process, not a System V semaphore; a null handle means that there is none, which every
// operation reports and survives.
#pragma once

#include "common/bytes.h"

struct Sem;
using SemHandle = Sem*;

/// A new lock, owned by the caller until DestroySem. Null, reported, when there is no memory for it.
SemHandle MakeSem();
/// Returns 0; -1 for a null handle, or when the process is told to end or the thread's WaitLimit passes while
/// another thread holds the lock.
i32 SemWait(SemHandle handle);
i32 SemRelease(SemHandle handle);
/// Frees the lock once its holder has released it. 0, or -1 for a null handle.
i32 DestroySem(SemHandle handle);

/// Holds a lock for a scope; also released when the thread is cancelled there.
class SemGuard {
 public:
  explicit SemGuard(SemHandle handle) : handle_(handle), given_up_(SemWait(handle) < 0 && handle) {}
  ~SemGuard() {
    if (!given_up_) SemRelease(handle_);
  }
  SemGuard(const SemGuard&) = delete;

  /// The lock was not had in time, or the process ends: the transaction must not be made. Without a handle it
  /// is made all the same.
  bool given_up() const { return given_up_; }

 private:
  SemHandle handle_;
  const bool given_up_;
};
