#include "sim/usbip/listener.h"

#include <netdb.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <chrono>
#include <cstring>
#include <utility>
#include <vector>

#include "sim/usbip/messages.h"

namespace sim {

namespace {

using Clock = std::chrono::steady_clock;
using namespace std::chrono_literals;

constexpr std::size_t kMostClients = 16;  //< that have not said all yet; the oldest makes room for a new one
constexpr auto kClientLimit = 2s;         //< for all that a client says
constexpr auto kLookAtClients = 100ms;    //< at clients that are too slow, and at the end of this object

// One that has not said all that its wish needs.
struct Client {
  int socket;
  Clock::time_point since;
  std::array<u8, kWishSize + kBusIdSize> said{};
  std::size_t size = 0;
};

enum class Fate { kWaits, kDropped, kImported };

void set_option(int socket, int level, int option, int value) {
  setsockopt(socket, level, option, &value, sizeof(value));
}

// A PC that is switched off does not keep the camera.
void notice_silence(int socket) {
  set_option(socket, SOL_SOCKET, SO_KEEPALIVE, 1);
  set_option(socket, IPPROTO_TCP, TCP_KEEPIDLE, 5);
  set_option(socket, IPPROTO_TCP, TCP_KEEPINTVL, 5);
  set_option(socket, IPPROTO_TCP, TCP_KEEPCNT, 3);
  set_option(socket, IPPROTO_TCP, TCP_USER_TIMEOUT, 20'000);
  set_option(socket, IPPROTO_TCP, TCP_NODELAY, 1);
}

// The answers fit any socket's buffer, so a client that does not take one is not waited for.
bool tell(int socket, const std::vector<u8>& answer) {
  return send(socket, answer.data(), answer.size(), MSG_NOSIGNAL | MSG_DONTWAIT) == std::ssize(answer);
}

Fate import(const Client& client, const Listener::Offer& offer) {
  const auto bus_id = reinterpret_cast<const char*>(&client.said[kWishSize]);
  const bool granted = std::string_view(bus_id, strnlen(bus_id, kBusIdSize)) == kBusId && offer.available();
  if (!tell(client.socket, import_answer(granted)) || !granted) return Fate::kDropped;
  notice_silence(client.socket);
  return offer.imported(client.socket) ? Fate::kImported : Fate::kDropped;
}

// Takes what the client says; no more than its wish needs, since what follows is not for this listener.
Fate hear(Client& client, const Listener::Offer& offer) {
  for (;;) {
    const std::span said(client.said);
    std::optional<ClientWish> wish;
    if (client.size >= kWishSize) {
      wish = parse_wish(said.first<kWishSize>());
      if (!wish) return Fate::kDropped;
      if (wish == ClientWish::kList)
        return tell(client.socket, list_answer(offer.available())), Fate::kDropped;
      if (client.size == said.size()) return import(client, offer);
    }
    const std::size_t wanted = wish ? said.size() : kWishSize;
    const ssize_t got = recv(client.socket, &said[client.size], wanted - client.size, MSG_DONTWAIT);
    if (got < 0 && errno == EAGAIN) return Fate::kWaits;
    if (got <= 0) return Fate::kDropped;
    client.size += static_cast<std::size_t>(got);
  }
}

}  // namespace

Listener::Listener(const std::string& address, u16 port, Offer offer) : offer_(std::move(offer)) {
  addrinfo hints{};
  hints.ai_flags = AI_PASSIVE | AI_NUMERICHOST;
  hints.ai_socktype = SOCK_STREAM;
  addrinfo* found = nullptr;
  if (const int failure = getaddrinfo(address.c_str(), std::to_string(port).c_str(), &hints, &found)) {
    error_ = '"' + address + "\" is no numeric address: " + gai_strerror(failure);
    return;
  }
  sockaddr_storage own{};
  socklen_t size = sizeof(own);
  socket_ = ::socket(found->ai_family, SOCK_STREAM | SOCK_CLOEXEC, 0);
  set_option(socket_, SOL_SOCKET, SO_REUSEADDR, 1);
  const bool listens = bind(socket_, found->ai_addr, found->ai_addrlen) == 0 &&
                       listen(socket_, kMostClients) == 0 &&
                       getsockname(socket_, reinterpret_cast<sockaddr*>(&own), &size) == 0;
  if (!listens)
    error_ = "cannot listen at " + address + " port " + std::to_string(port) + ": " + std::strerror(errno);
  freeaddrinfo(found);
  if (!listens) return;
  // The port is at the same place in the addresses of both families.
  port_ = ntohs(reinterpret_cast<const sockaddr_in&>(own).sin_port);
  thread_ = std::thread([this] { serve(); });
}

Listener::~Listener() {
  ending_ = true;
  if (thread_.joinable()) thread_.join();
  if (socket_ >= 0) close(socket_);
}

void Listener::serve() {
  std::vector<Client> clients;  // the oldest first
  while (!ending_) {
    std::vector<pollfd> files{{socket_, POLLIN, 0}};
    for (const Client& client : clients) files.push_back({client.socket, POLLIN, 0});
    if (poll(files.data(), files.size(), std::chrono::milliseconds(kLookAtClients).count()) < 0) continue;
    std::erase_if(clients, [&](Client& client) {
      const Fate fate = Clock::now() - client.since > kClientLimit ? Fate::kDropped : hear(client, offer_);
      if (fate == Fate::kDropped) close(client.socket);
      return fate != Fate::kWaits;
    });
    if (!files[0].revents) continue;
    const int socket = accept4(socket_, nullptr, nullptr, SOCK_CLOEXEC);
    if (socket < 0) continue;
    if (clients.size() == kMostClients) {
      close(clients.front().socket);
      clients.erase(clients.begin());
    }
    clients.push_back({socket, Clock::now()});
  }
  for (const Client& client : clients) close(client.socket);
}

}  // namespace sim
