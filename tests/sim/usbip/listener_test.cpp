// What clients may do to the listener, and that the next good one is served.
#include "sim/usbip/listener.h"

#include <arpa/inet.h>
#include <gmock/gmock.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <chrono>
#include <deque>
#include <mutex>

#include "sim/usbip/messages.h"

namespace {

using testing::SizeIs;
using testing::StartsWith;

const std::string kList("\x01\x11\x80\x05\0\0\0\0", 8);
std::string import(std::string bus_id) {
  bus_id.resize(32);
  return std::string("\x01\x11\x80\x03\0\0\0\0", 8) + bus_id;
}

class Client {
 public:
  explicit Client(u16 port) : socket_(socket(AF_INET, SOCK_STREAM, 0)) {
    const sockaddr_in to{
        .sin_family = AF_INET, .sin_port = htons(port), .sin_addr = {htonl(INADDR_LOOPBACK)}, .sin_zero = {}};
    EXPECT_EQ(connect(socket_, reinterpret_cast<const sockaddr*>(&to), sizeof(to)), 0);
    const timeval limit{20, 0};
    setsockopt(socket_, SOL_SOCKET, SO_RCVTIMEO, &limit, sizeof(limit));
  }
  ~Client() { close(socket_); }
  Client(const Client&) = delete;

  void say(const std::string& bytes) const { (void)!send(socket_, bytes.data(), bytes.size(), MSG_NOSIGNAL); }
  // All up to the end, or so many bytes.
  std::string hear(std::size_t most = 4096) const {
    std::string heard(most, '\0');
    const ssize_t size = recv(socket_, heard.data(), most, MSG_WAITALL);
    heard.resize(std::max<ssize_t>(size, 0));
    return heard;
  }

 private:
  const int socket_;
};

// The sockets of clients that have the camera, which are closed at the end.
struct Taken {
  ~Taken() {
    for (const int socket : sockets) close(socket);
  }
  bool take(int socket) {
    const std::lock_guard guard(lock);
    sockets.push_back(socket);
    return true;
  }

  std::mutex lock;
  std::vector<int> sockets;
};

class ListenerTest : public testing::Test {
 protected:
  std::atomic<bool> available = true;
  Taken taken;
  sim::Listener listener{"127.0.0.1",
                         0,
                         {.available = [this] { return available.load(); },
                          .imported = [this](int socket) { return taken.take(socket); }}};
};

TEST_F(ListenerTest, ListsTheCameraAndGivesItAway) {
  ASSERT_EQ(listener.error(), "");
  const Client lists(listener.port());
  lists.say(kList);
  const std::string list = lists.hear();
  EXPECT_THAT(list, SizeIs(12 + 312 + 2 * 4));
  EXPECT_THAT(list, StartsWith(std::string("\x01\x11\0\x05\0\0\0\0\0\0\0\x01", 12)));
  EXPECT_THAT(list.substr(12 + 256), StartsWith("1-1"));
  const Client other(listener.port()), good(listener.port());
  other.say(import("1-2"));
  EXPECT_EQ(other.hear(), std::string("\x01\x11\0\x03\0\0\0\x01", 8));
  for (const char byte : import("1-1")) good.say({byte});
  EXPECT_THAT(good.hear(8 + 312), StartsWith(std::string("\x01\x11\0\x03\0\0\0\0", 8)));
  available = false;
  const Client late(listener.port()), looks(listener.port());
  late.say(import("1-1"));
  EXPECT_THAT(late.hear(), SizeIs(8));
  looks.say(kList);
  EXPECT_THAT(looks.hear(), SizeIs(12));
  const std::lock_guard guard(taken.lock);
  EXPECT_EQ(taken.sockets.size(), 1u);
}

TEST_F(ListenerTest, BadClientsDoNotKeepAGoodOneOut) {
  std::deque<Client> silent;
  for (int i = 0; i < 40; ++i)
    silent.emplace_back(listener.port()).say(i % 2 ? import("1-1").substr(0, 20) : "");
  for (const std::string& nonsense :
       {std::string("GET / HTTP/1.1\r\n\r\n"), std::string("\x01\x06\x80\x05\0\0\0\0", 8),
        std::string("\x01\x11\x80\x04\0\0\0\0", 8), std::string(100'000, '\xFF')}) {
    const Client client(listener.port());
    client.say(nonsense);
    EXPECT_EQ(client.hear(), "");
  }
  const Client good(listener.port());
  good.say(import("1-1"));
  EXPECT_THAT(good.hear(8 + 312), SizeIs(8 + 312));
  EXPECT_EQ(silent.front().hear(), "") << "the oldest made room";
  EXPECT_EQ(silent.back().hear(), "") << "the others had their time";
}

TEST_F(ListenerTest, AddressesThatCannotBe) {
  EXPECT_THAT(sim::Listener("camera", 0, {}).error(), testing::HasSubstr("\"camera\" is no numeric address"));
  EXPECT_THAT(sim::Listener("127.0.0.1", listener.port(), {}).error(), testing::HasSubstr("in use"));
}

}  // namespace
