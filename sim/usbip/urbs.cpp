#include "sim/usbip/urbs.h"

#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <utility>

namespace sim {

namespace {

constexpr std::chrono::microseconds kMicroframe(125);
constexpr u32 kStreamEndpoint = 1;
constexpr std::size_t kMostOpen = 64;  //< a host that has more open transfers is not served any longer

}  // namespace

UrbConnection::UrbConnection(int socket, UrbDevice& device)
    : socket_(socket),
      device_(device),
      control_thread_([this] { run_control(); }),
      stream_thread_([this] { run_stream(); }),
      reader_([this] { serve(); }) {}

UrbConnection::~UrbConnection() {
  end();
  for (std::thread* thread : {&reader_, &control_thread_, &stream_thread_}) thread->join();
  close(socket_);
}

void UrbConnection::end() {
  shutdown(socket_, SHUT_RDWR);  // also ends a send that waits with the lock held
  const std::lock_guard guard(lock_);
  ended_ = true;
  changed_.notify_all();
}

void UrbConnection::serve() {
  while (take_request()) continue;
  end();
  device_.disconnect();
}

// Returns false when the connection is to end.
bool UrbConnection::take_request() {
  std::array<u8, kUrbHeadSize> head;
  if (!receive(head)) return false;
  const auto request = parse_urb_request(head);
  if (!request) return false;
  if (request->taken_back) return take_back(*request);
  Urb urb{.request = *request};
  urb.data.resize(request->data_size());
  std::vector<u8> bytes(request->packets_size());
  if (!receive(urb.data) || !receive(bytes)) return false;
  auto packets = parse_iso_packets(*request, bytes);
  if (!packets) return false;
  urb.packets = std::move(*packets);
  return add(std::move(urb));
}

bool UrbConnection::add(Urb urb) {
  const std::lock_guard guard(lock_);
  const bool streams = urb.request.endpoint == kStreamEndpoint && urb.request.in;
  newest_ = urb.request.number;
  if (const auto early = taken_back_early_.extract(newest_); !early.empty())
    return send(taken_back_answer(early.mapped(), -ECONNRESET));
  if (open_.size() >= kMostOpen || !open_.insert(urb.request.number).second) return false;
  if (streams) {
    // It goes over the bus behind those that wait, and not before it was asked for.
    bus_free_ = std::max(bus_free_, Clock::now()) + kMicroframe * urb.packets.size();
    urb.due = bus_free_;
  }
  (streams ? streams_ : controls_).push_back(std::move(urb));
  changed_.notify_all();
  return true;
}

// Linux sends its transfers and what takes them back from two queues, so that the latter may come first. An
// answer before the transfer has come would make Linux forget the transfer or wait for it, depending on how
// far it is.
bool UrbConnection::take_back(const UrbRequest& request) {
  const std::lock_guard guard(lock_);
  if (static_cast<i32>(*request.taken_back - newest_) > 0) {
    taken_back_early_.emplace(*request.taken_back, request.number);
    return taken_back_early_.size() <= kMostOpen;
  }
  const bool was_open = open_.erase(*request.taken_back) > 0;
  for (Queue* queue : {&controls_, &streams_}) {
    std::erase_if(*queue, [&](const Urb& urb) { return urb.request.number == *request.taken_back; });
  }
  return send(taken_back_answer(request.number, was_open ? -ECONNRESET : 0));
}

// Waits for the queue's first transfer and until it is due. Returns nothing when the connection has ended.
std::optional<UrbConnection::Urb> UrbConnection::next(Queue& queue) {
  std::unique_lock guard(lock_);
  for (;;) {
    if (ended_) return std::nullopt;
    if (queue.empty()) {
      changed_.wait(guard);
    } else if (queue.front().due > Clock::now()) {
      changed_.wait_until(guard, queue.front().due);
    } else {
      Urb urb = std::move(queue.front());
      queue.pop_front();
      return urb;
    }
  }
}

void UrbConnection::run_control() {
  while (const auto urb = next(controls_)) {
    if (urb->request.endpoint != 0) {
      answer(*urb, -EPIPE);
    } else {
      answer_control(*urb, device_.control(urb->request.setup, urb->data));
    }
  }
}

void UrbConnection::answer_control(const Urb& urb, const ControlOutcome& outcome) {
  if (outcome.kind == ControlOutcome::kNoAnswer) return;  // the host takes it back when it has waited enough
  const std::size_t length = std::min<std::size_t>(outcome.data.size(), urb.request.length);
  if (outcome.kind == ControlOutcome::kStalled) return answer(urb, -EPIPE);
  answer(urb, 0, std::span(outcome.data).first(urb.request.in ? length : 0));
}

void UrbConnection::run_stream() {
  std::vector<u8> data;
  while (auto urb = next(streams_)) {
    data.resize(urb->request.length);
    const std::size_t length = device_.fill(urb->packets, data);
    answer(*urb, 0, std::span(data).first(length));
  }
}

// Answers a transfer unless the host has taken it back.
void UrbConnection::answer(const Urb& urb, i32 status, std::span<const u8> data) {
  const auto bytes = transfer_answer(urb.request, status, data, urb.packets);
  const std::lock_guard guard(lock_);
  if (open_.erase(urb.request.number) > 0) send(bytes);
}

bool UrbConnection::send(std::span<const u8> bytes) {
  while (!bytes.empty()) {
    const ssize_t sent = ::send(socket_, bytes.data(), bytes.size(), MSG_NOSIGNAL);
    if (sent < 0 && errno == EINTR) continue;
    if (sent <= 0) return false;
    bytes = bytes.subspan(static_cast<std::size_t>(sent));
  }
  return true;
}

bool UrbConnection::receive(std::span<u8> bytes) {
  while (!bytes.empty()) {
    const ssize_t got = recv(socket_, bytes.data(), bytes.size(), MSG_WAITALL);
    if (got < 0 && errno == EINTR) continue;
    if (got <= 0) return false;
    bytes = bytes.subspan(static_cast<std::size_t>(got));
  }
  return true;
}

}  // namespace sim
