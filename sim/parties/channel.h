// Channel: a thread that takes the messages of one type off a System V queue and passes each to a function.
// It creates the queue if there is none and leaves it for the other side; the run removes it.
#pragma once

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <functional>
#include <mutex>
#include <span>
#include <thread>

#include "common/bytes.h"

namespace sim {

class Channel {
 public:
  /// Receives the bytes after the message type, on the channel's thread.
  using Handler = std::function<void(std::span<const u8> payload)>;

  /// `key` is the camera's. Ends the program with a message if the queue cannot be opened.
  Channel(i32 key, long type, Handler handler);
  /// Returns once the handler is done. Messages that are still in the queue stay there.
  ~Channel();
  Channel(const Channel&) = delete;

  /// leave() ends the thread and removes the queue with the messages in it; come() creates both again. Must
  /// not be called from the handler.
  void leave();
  void come();

  /// While held, nothing is taken off the queue. Returns when the thread is idle. Must not be called
  /// from the handler.
  void hold(bool held);
  /// Fills the queue with messages that the channel ignores. The channel must be held.
  void fill();
  /// Sets how long each message waits before it is handled.
  void set_delay(std::chrono::milliseconds delay);
  /// Pauses the handler. Returns false if the channel was stopped during the pause.
  bool pause(std::chrono::milliseconds time);
  /// Sends a record that begins with its message type; `payload` bytes follow. Never waits; returns false if
  /// the queue has no room.
  bool send(const void* record, std::size_t payload);

 private:
  void run();
  void end_thread();
  bool rest_while_held();
  void wake();

  const i32 key_;
  std::atomic<int> queue_;
  const long type_;
  const Handler handler_;
  std::mutex lock_;
  std::condition_variable changed_;
  std::atomic<int> delay_ms_ = 0;
  bool held_ = false;
  bool stopping_ = false;
  bool resting_ = false;
  bool ended_ = false;
  std::thread thread_;
};

}  // namespace sim
