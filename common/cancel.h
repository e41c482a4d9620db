// CancelPoint: where a thread that otherwise refuses cancellation may be cancelled.
#pragma once

#include <pthread.h>

/// Admits cancellation while it lives and puts the former state back. The control thread refuses
/// cancellation but at its poll sleep and inside a blocking receive; locks are held by guard objects there.
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
