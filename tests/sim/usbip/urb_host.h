// The host's end of a connection, as Linux's virtual host controller plays it: sends transfers and takes them
// back, reads the answers and checks that each is one that may come.
#pragma once

#include <arpa/inet.h>
#include <linux/usb/video.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <array>
#include <chrono>
#include <cstring>
#include <map>
#include <optional>
#include <span>
#include <string>
#include <vector>

#include "sim/usbip/messages.h"

struct UrbAnswer {
  u32 number = 0;
  bool taken_back = false;  ///< the answer to take_back()
  i32 status = 0;
  u32 actual = 0;
  std::vector<u8> data{};      ///< of an IN transfer
  std::vector<u32> packets{};  ///< bytes that each has
};

class UrbHost {
 public:
  explicit UrbHost(int socket) : socket_(socket) {}
  ~UrbHost() { close(socket_); }
  UrbHost(const UrbHost&) = delete;

  /// Returns the transfer's number.
  u32 control(const usb_ctrlrequest& setup, const std::vector<u8>& data = {}) {
    const bool in = setup.bRequestType & USB_DIR_IN;
    std::vector<u8> bytes = head(1, in, 0, {0, setup.wLength, 0, ~0u, 0});
    std::memcpy(&bytes[40], &setup, sizeof(setup));
    bytes.insert(bytes.end(), data.begin(), data.end());
    return sent(bytes, in, 0);
  }
  u32 stream(u32 packets, u32 packet_size = 3072) {
    std::vector<u8> bytes = head(1, true, 1, {0, packets * packet_size, 0, packets, 1});
    for (u32 i = 0; i < packets; ++i) append(bytes, {i * packet_size, packet_size, 0, 0});
    return sent(bytes, true, packets);
  }
  u32 take_back(u32 number) { return sent(head(2, false, 0, {number, 0, 0, 0, 0}), false, 0); }
  void send_bytes(std::span<const u8> bytes) {
    (void)!send(socket_, bytes.data(), bytes.size(), MSG_NOSIGNAL);
  }

  /// Returns nothing at the end of the connection, or when nothing came within the limit.
  std::optional<UrbAnswer> next(std::chrono::milliseconds limit = std::chrono::seconds(20)) {
    pollfd file{socket_, POLLIN, 0};
    std::array<u32, 12> words;
    if (poll(&file, 1, static_cast<int>(limit.count())) <= 0 || !read(words.data(), sizeof(words))) return {};
    for (u32& word : words) word = ntohl(word);
    UrbAnswer answer{.number = words[1], .taken_back = words[0] == 4, .status = static_cast<i32>(words[5])};
    const auto sent = sent_.find(answer.number);
    if (sent == sent_.end() || (words[0] != 3 && words[0] != 4)) {
      wrong_ = "an answer to nothing, number " + std::to_string(answer.number);
      return {};
    }
    const Sent what = sent->second;
    sent_.erase(sent);
    if (answer.taken_back) return answer;
    answer.actual = words[6];
    if (words[8] != what.packets) wrong_ = "other packets than were asked for";
    answer.data.resize(what.in ? answer.actual : 0);
    if (!answer.data.empty() && !read(answer.data.data(), answer.data.size())) return {};
    u32 sum = 0;
    for (u32 i = 0; i < what.packets; ++i) {
      std::array<u32, 4> packet;
      if (!read(packet.data(), sizeof(packet))) return {};
      answer.packets.push_back(ntohl(packet[2]));
      sum += answer.packets.back();
    }
    if (what.packets && sum != answer.actual) wrong_ = "the packets have not what the transfer has";
    return answer;
  }
  std::optional<UrbAnswer> answer_to(u32 number) {
    for (;;) {
      auto answer = next();
      if (!answer || answer->number == number) return answer;
    }
  }
  /// The host's controller forgets a transfer once it was taken back.
  void forget(u32 number) { sent_.erase(number); }
  std::size_t open() const { return sent_.size(); }
  const std::string& wrong() const { return wrong_; }  ///< with an answer; empty: nothing

 private:
  struct Sent {
    bool in;
    u32 packets;
  };

  static void append(std::vector<u8>& to, std::initializer_list<u32> words) {
    for (const u32 word : words) {
      for (const int shift : {24, 16, 8, 0}) to.push_back(static_cast<u8>(word >> shift));
    }
  }
  std::vector<u8> head(u32 command, bool in, u32 endpoint, std::array<u32, 5> words) {
    std::vector<u8> bytes;
    append(bytes, {command, ++number_, sim::kUsbipDevice, in, endpoint});
    for (const u32 word : words) append(bytes, {word});
    bytes.resize(sim::kUrbHeadSize);
    return bytes;
  }
  u32 sent(std::span<const u8> bytes, bool in, u32 packets) {
    sent_[number_] = {in, packets};
    send_bytes(bytes);
    return number_;
  }
  bool read(void* to, std::size_t size) {
    return recv(socket_, to, size, MSG_WAITALL) == static_cast<ssize_t>(size);
  }

  const int socket_;
  u32 number_ = 0;
  std::map<u32, Sent> sent_;  ///< what has no answer yet
  std::string wrong_;
};

/// Puts a stream's payloads together, as Linux's driver does.
class FrameReader {
 public:
  /// Calls `take` with each frame that ends in the packets of this answer.
  template <class Take>
  void read(const UrbAnswer& answer, Take take) {
    for (std::size_t at = 0; const u32 length : answer.packets) {
      if (length == 0) continue;
      const auto packet = std::span(answer.data).subspan(at, length);
      at += length;
      frame_.insert(frame_.end(), packet.begin() + packet[0], packet.end());
      if (!(packet[1] & UVC_STREAM_EOF)) continue;
      take(frame_);
      frame_.clear();
    }
  }

 private:
  std::vector<u8> frame_;
};
