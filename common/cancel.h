// CancelPoint: where a thread that otherwise refuses cancellation may be cancelled.
#pragma once

#include <pthread.h>

/// Admits cancellation during its lifetime, then restores the former state. The control thread admits it only
/// in its sleep between polls and inside a blocking receive, where guard objects hold its locks.
class CancelPoint {
 public:
  CancelPoint() { pthread_setcancelstate(PTHREAD_CANCEL_ENABLE, &former_); }
  ~CancelPoint() {
    int ignored;
    pthread_setcancelstate(former_, &ignored);
  }
  CancelPoint(const CancelPoint&) = delete;

 private:
  int former_;
};
