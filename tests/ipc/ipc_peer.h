// The system server's end of one channel, for the tests of its clients: real queues of the current run.
#pragma once

#include <pthread.h>
#include <sys/ipc.h>
#include <sys/msg.h>

#include <cstdio>
#include <cstring>
#include <functional>
#include <string>
#include <thread>

#include "ipc/msg_records.h"
#include "sim/seam/run.h"

/// All words behind the message type that are not 0, as bytes in hex, by their offset in the camera's record:
/// "4:0C000000 24:34001200". Words that are missing here are 0.
template <typename Record>
std::string record_text(const Record& record, std::size_t payload) {
  std::string text;
  char word[32];
  for (std::size_t offset = 0; offset < payload; offset += 4) {
    u8 b[4];
    std::memcpy(b, reinterpret_cast<const u8*>(&record) + sizeof(long) + offset, sizeof(b));
    if (!(b[0] | b[1] | b[2] | b[3])) continue;
    std::snprintf(word, sizeof(word), "%s%zu:%02X%02X%02X%02X", text.empty() ? "" : " ", offset + 4, b[0],
                  b[1], b[2], b[3]);
    text += word;
  }
  return text;
}

template <typename Record, std::size_t kPayload>
class Peer {
 public:
  explicit Peer(key_t key) : queue_(msgget(sim::run_key(key), IPC_CREAT | 0666)) {}

  int queue() const { return queue_; }
  std::size_t waiting() const {
    msqid_ds info;
    return msgctl(queue_, IPC_STAT, &info) == 0 ? info.msg_qnum : 0;
  }
  void send(const Record& record) const { msgsnd(queue_, &record, kPayload, 0); }
  /// Waits for the next request. A request of the wrong length is not one.
  Record take() const {
    Record record{};
    if (msgrcv(queue_, &record, kPayload, kServerMsgType, 0) != ssize_t{kPayload}) record = {};
    return record;
  }

  /// Makes the call while a thread takes one request and, when its sender gave an id, answers it with what
  /// `answer` makes of the record. Returns the request as text.
  std::string serve(const std::function<void()>& call, const std::function<void(Record&)>& answer) const {
    std::string request;
    std::thread server([&] {
      Record record = take();
      request = record_text(record, kPayload);
      record.dest = record.src;
      if (record.src == 0) return;
      answer(record);
      send(record);
    });
    call();
    server.join();
    return request;
  }

  /// Two threads, 1 and 2, make so many calls each; every request is answered with what `answer` makes of it.
  void serve_two(int rounds, const std::function<void(i32)>& call,
                 const std::function<void(Record&)>& answer) const {
    std::thread server([&] {
      for (int i = 0; i < 2 * rounds; ++i) {
        Record record = take();
        record.dest = record.src;
        answer(record);
        send(record);
      }
    });
    const auto client = [&](i32 number) {
      for (int i = 0; i < rounds; ++i) call(number);
    };
    std::thread other(client, 1);
    client(2);
    other.join();
    server.join();
  }

 private:
  int queue_;
};

using FilePeer = Peer<FileMsgBuf, kFileMsgPayload>;
using SysPeer = Peer<SysMsgBuf, kSysMsgPayload>;
using VeltoPeer = Peer<VeltoMsgBuf, kVeltoMsgPayload>;

/// A thread that may be cancelled where the code under test admits it, and nowhere else.
class CancellableThread {
 public:
  explicit CancellableThread(std::function<void()> body) : body_(std::move(body)) {
    pthread_create(&thread_, nullptr, start, this);
  }
  pthread_t handle() const { return thread_; }
  /// True when the thread ended by cancellation.
  bool cancel_and_join() {
    pthread_cancel(thread_);
    return join();
  }
  bool join() {
    void* result = nullptr;
    pthread_join(thread_, &result);
    return result == PTHREAD_CANCELED;
  }

 private:
  static void* start(void* self) {
    int ignored;
    pthread_setcancelstate(PTHREAD_CANCEL_DISABLE, &ignored);
    static_cast<CancellableThread*>(self)->body_();
    return nullptr;
  }
  std::function<void()> body_;
  pthread_t thread_;
};
