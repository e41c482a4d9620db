// A recording of received streams in a file that players open: AVI for YUY2, Matroska for the others.
#pragma once

#include <mutex>
#include <string>

#include "sim/host/usb_host.h"

namespace sim {

class Recording {
 public:
  static constexpr i64 kMostBytes = 256 * 1024 * 1024;  ///< it ends before it would be longer

  struct Status {
    bool running = false;
    std::string file{};  ///< of the last recording; empty if there is none
    i64 bytes = 0, frames = 0;
    double seconds = 0;
    std::string ended{};  ///< why it ended, if nobody stopped it
  };

  /// The file names begin with `stem`.
  explicit Recording(std::string stem) : stem_(std::move(stem)) {}
  ~Recording() { stop(); }
  Recording(const Recording&) = delete;

  // Any thread may call these.
  /// The file begins with the next frame from which a player can begin.
  void start();
  /// Returns false if nothing was recorded.
  bool stop();
  Status status() const;
  /// For UsbHost::on_frame(). A stream of another choice ends the recording.
  void take(const ReceivedFrame& frame);

 private:
  struct CloseFile {
    void operator()(AVFormatContext* file) const;
  };

  void end(const std::string& why);
  bool open(const ReceivedFrame& frame);
  bool write(const ReceivedFrame& frame);

  const std::string stem_;
  mutable std::mutex lock_;
  Status status_;
  unsigned number_ = 0;
  std::unique_ptr<AVFormatContext, CloseFile> file_;
  StreamChoice choice_{};
  i64 first_ = 0, last_time_ = -1;
};

}  // namespace sim
