// Channel: a thread that takes the messages of one type off a System V queue and hands each to a function.
// It creates the queue when there is none and leaves it behind for the other side; the run removes it.
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
  /// Gets what came behind the message type, on the channel's thread.
  using Handler = std::function<void(std::span<const u8> payload)>;

  /// `key` is the camera's. Ends the program with a message when the queue cannot be had.
  Channel(i32 key, long type, Handler handler);
  /// Returns once the handler is done; messages still in the queue stay there.
  ~Channel();
  Channel(const Channel&) = delete;

  /// Ends the thread, and removes the queue with what waits in it; or makes both anew. Not for the handler.
  void leave();
  void come();

  /// While held, nothing is taken off the queue. Returns once the thread rests; not for the handler.
  void hold(bool held);
  /// Fills the queue with messages that the channel passes over. For a held one.
  void fill();
  /// How long each message waits before it is handled.
  void set_delay(std::chrono::milliseconds delay);
  /// A rest for the handler. False when the channel stopped meanwhile.
  bool pause(std::chrono::milliseconds time);
  /// Sends a record that begins with its message type; `payload` bytes follow. False when the queue has no
  /// room: never waits.
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
