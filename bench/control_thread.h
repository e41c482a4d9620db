// The open gadget node and a thread that serves it, for an object's lifetime.
#pragma once

#include <pthread.h>
#include <time.h>

#include <chrono>

#include "sim/seam/node.h"
#include "uvc/uvc_gadget_device.h"
#include "uvc/uvc_state.h"

class ControlThread {
 public:
  /// `body` is uvc_class_procesing, or a peer of it.
  ControlThread(void* (*body)(void*), bool streaming) {
    uvc_device_open();
    uvc_stream_state.stream_on = streaming;
    pthread_create(&thread_, nullptr, body, &uvc_video_fd);
    sim::NodeHost().wait_for_device(std::chrono::seconds(2));
  }
  ~ControlThread() {
    pthread_cancel(thread_);
    pthread_join(thread_, nullptr);
    uvc_device_close();
  }
  ControlThread(const ControlThread&) = delete;

  pthread_t handle() const { return thread_; }
  double cpu_seconds() const {
    clockid_t clock;
    timespec used;
    pthread_getcpuclockid(thread_, &clock);
    clock_gettime(clock, &used);
    return static_cast<double>(used.tv_sec) + 1e-9 * static_cast<double>(used.tv_nsec);
  }

 private:
  pthread_t thread_;
};
