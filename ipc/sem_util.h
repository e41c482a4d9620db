// The lock handle that keeps this process's threads from interleaving their transactions on one channel. It
// is a mutex of this process, not a System V semaphore. A null handle means that there is no lock; every
// operation reports that and goes on.
#pragma once

#include "common/bytes.h"

struct Sem;
using SemHandle = Sem*;

/// Returns a new lock, which the caller owns until DestroySem, or prints an error and returns null if there
/// is no memory for it.
SemHandle MakeSem();
/// Returns 0, or -1 for a null handle, or if the process has to end or the thread's WaitLimit passes while
/// another thread holds the lock.
i32 SemWait(SemHandle handle);
i32 SemRelease(SemHandle handle);
/// Frees the lock once its holder has released it. Returns 0, or -1 for a null handle.
i32 DestroySem(SemHandle handle);

/// Holds a lock for a scope; it is also released when the thread is cancelled there.
class SemGuard {
 public:
  explicit SemGuard(SemHandle handle) : handle_(handle), given_up_(SemWait(handle) < 0 && handle) {}
  ~SemGuard() {
    if (!given_up_) SemRelease(handle_);
  }
  SemGuard(const SemGuard&) = delete;

  /// True if the lock could not be taken in time or the process has to end: the transaction must not be made
  /// then. Without a handle the transaction is made nevertheless.
  bool given_up() const { return given_up_; }

 private:
  SemHandle handle_;
  const bool given_up_;
};
