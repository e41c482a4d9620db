// The lock handle that keeps this process's threads from interleaving their transactions on one channel. It
// is a mutex of this process, not a System V semaphore; a null handle means that there is none, which every
// operation reports and survives.
#pragma once

#include "common/bytes.h"

struct Sem;
using SemHandle = Sem*;

/// A new lock, owned by the caller until DestroySem. Null, reported, when there is no memory for it.
SemHandle MakeSem();
/// 0, or -1 for a null handle.
i32 SemWait(SemHandle handle);
i32 SemRelease(SemHandle handle);
/// Frees the lock once its holder has released it. 0, or -1 for a null handle.
i32 DestroySem(SemHandle handle);

/// Holds a lock for a scope; also released when the thread is cancelled there.
class SemGuard {
 public:
  explicit SemGuard(SemHandle handle) : handle_(handle) { SemWait(handle_); }
  ~SemGuard() { SemRelease(handle_); }
  SemGuard(const SemGuard&) = delete;

 private:
  SemHandle handle_;
};
