// The received pictures as a browser shows them: MJPEG as it came, every other format as JPEG.
#pragma once

#include <condition_variable>
#include <functional>
#include <mutex>
#include <optional>
#include <thread>
#include <vector>

#include "sim/host/usb_host.h"

namespace sim {

class WebPictures {
 public:
  using Jpeg = std::vector<u8>;

  /// `show` gets each picture; nothing is made while `watched` returns false. Both are called on threads of
  /// the host and of this.
  WebPictures(std::function<void(Jpeg)> show, std::function<bool()> watched);
  ~WebPictures();
  WebPictures(const WebPictures&) = delete;

  /// For UsbHost::on_frame(). Returns at once: what cannot be encoded in time gives way to the next picture.
  void take(const ReceivedFrame& frame);

 private:
  class Encoder;

  void run();

  const std::function<void(Jpeg)> show_;
  const std::function<bool()> watched_;
  std::mutex lock_;
  std::condition_variable changed_;
  AvPtr<AVFrame> newest_;
  bool over_ = false;
  std::thread thread_;
};

}  // namespace sim
