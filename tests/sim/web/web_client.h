// A client of the web server that need not be polite: it sends any bytes and reads when it likes.
#pragma once

#include <arpa/inet.h>
#include <gmock/gmock.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <chrono>
#include <optional>
#include <string>

#include "common/bytes.h"
#include "sim/web/json.h"

namespace sim {

class WebClient {
 public:
  explicit WebClient(u16 port) : port_(port), socket_(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0)) {
    const sockaddr_in address{
        .sin_family = AF_INET, .sin_port = htons(port), .sin_addr = {htonl(INADDR_LOOPBACK)}, .sin_zero = {}};
    EXPECT_EQ(connect(socket_, reinterpret_cast<const sockaddr*>(&address), sizeof(address)), 0);
  }
  ~WebClient() { leave(); }
  WebClient(const WebClient&) = delete;

  void leave() {
    if (socket_ >= 0) close(socket_);
    socket_ = -1;
  }
  // Returns false once the server has closed.
  bool send(const std::string& bytes) {
    return ::send(socket_, bytes.data(), bytes.size(), MSG_NOSIGNAL) == std::ssize(bytes);
  }
  std::string host() const { return "Host: 127.0.0.1:" + std::to_string(port_) + "\r\n"; }

  // Waits until so many bytes are there, or less if the server closes or the time is over.
  std::string read(std::size_t size, std::chrono::milliseconds limit = std::chrono::seconds(10)) {
    const auto end = std::chrono::steady_clock::now() + limit;
    while (came_.size() < size && receive(end)) continue;
    const std::string bytes = came_.substr(0, size);
    came_.erase(0, size);
    return bytes;
  }
  // Returns head and body of an answer.
  std::string answer() {
    std::string head;
    while (!head.ends_with("\r\n\r\n")) {
      const std::string byte = read(1);
      if (byte.empty()) return head;
      head += byte;
    }
    const auto length = head.find("content-length: ");
    if (length == std::string::npos) return head;
    return head + read(static_cast<std::size_t>(std::stoul(head.substr(length + 16))));
  }
  bool closed(std::chrono::milliseconds limit = std::chrono::seconds(10)) {
    const auto end = std::chrono::steady_clock::now() + limit;
    while (receive(end)) came_.clear();
    return closed_;
  }

  // Becomes a page.
  bool upgrade(const std::string& path = "/socket", const std::string& more = "") {
    send("GET " + path + " HTTP/1.1\r\n" + host() + more +
         "Upgrade: websocket\r\nConnection: Upgrade\r\nSec-WebSocket-Version: 13\r\n"
         "Sec-WebSocket-Key: AAAAAAAAAAAAAAAAAAAAAA==\r\n\r\n");
    reply = answer();
    return reply.starts_with("HTTP/1.1 101");
  }
  enum Kind : u8 { kMore = 0, kText = 1, kBinary = 2 };
  static std::string frame(const std::string& data, u8 kind = kText, bool last = true) {
    std::string bytes{static_cast<char>(kind | (last ? 0x80 : 0))};
    bytes += '\xFF';  // masked, with a length of eight bytes
    for (int shift = 56; shift >= 0; shift -= 8) bytes += static_cast<char>(data.size() >> shift);
    return bytes + std::string(4, '\0') + data;  // this mask changes nothing
  }
  bool tell(const Json& message) { return send(frame(text_of(message))); }
  struct Message {
    u8 kind = 0;
    std::string data{};
  };
  // Returns the next message, without what the socket sends for itself; nothing when it has closed.
  std::optional<Message> next() {
    for (;;) {
      const std::string head = read(2);
      if (head.size() < 2) return std::nullopt;
      std::size_t size = head[1] & 0x7F;
      const std::size_t more = size == 126 ? 2 : size == 127 ? 8 : 0;
      if (more) size = 0;
      for (const char byte : read(more)) size = size << 8 | static_cast<u8>(byte);
      Message message{static_cast<u8>(head[0] & 0x0F), read(size)};
      if (message.kind == kText || message.kind == kBinary) return message;
      if (message.kind == 8) return std::nullopt;
    }
  }
  // The next text that has this member; pictures are passed over.
  Json next_with(const char* member) {
    for (auto message = next(); message; message = next()) {
      if (message->kind != kText) continue;
      const Json json = json_in(message->data);
      if (json.contains(member)) return json;
    }
    return {};
  }

  std::string reply;  // to the upgrade

 private:
  bool receive(std::chrono::steady_clock::time_point end) {
    const auto left = std::chrono::ceil<std::chrono::milliseconds>(end - std::chrono::steady_clock::now());
    pollfd ready{socket_, POLLIN, 0};
    if (closed_ || left.count() <= 0 || poll(&ready, 1, static_cast<int>(left.count())) <= 0) return false;
    char bytes[65536];
    const ssize_t length = recv(socket_, bytes, sizeof(bytes), 0);
    closed_ = length <= 0;
    if (!closed_) came_.append(bytes, static_cast<std::size_t>(length));
    return !closed_;
  }

  const u16 port_;
  int socket_;
  bool closed_ = false;
  std::string came_;
};

}  // namespace sim
