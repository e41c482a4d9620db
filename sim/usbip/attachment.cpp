#include "sim/usbip/attachment.h"

#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <utility>

namespace sim {

namespace {

using namespace std::chrono_literals;

constexpr auto kLook = 20ms;

}  // namespace

Attachment::Attachment(UrbDevice& device, const HostPlace& place, std::function<bool()> present)
    : device_(device), controller_(place.controller), present_(std::move(present)) {
  if (!controller_) {
    listener_.emplace(place.address, place.port,
                      Listener::Offer{.available = [this] { return present_() && !connected(); },
                                      .imported = [this](int socket) { return take_client(socket); }});
    error_ = listener_->error();
  }
  thread_ = std::thread([this] { follow(); });
}

Attachment::~Attachment() {
  listener_.reset();
  ending_ = true;
  thread_.join();
}

void Attachment::follow() {
  for (; !ending_; std::this_thread::sleep_for(kLook)) look();
}

void Attachment::look() {
  const bool present = present_();
  const std::lock_guard guard(lock_);
  if (connection_ && connection_->ended()) let_go_ = controller_ != nullptr;
  if (!present) let_go_ = false;
  if (connection_ && (!present || connection_->ended())) {
    connection_.reset();
    node_.clear();
  }
  if (present && controller_ && !connection_ && !let_go_) plug();
  if (connection_ && controller_ && node_.empty()) node_ = video_node_of(controller_->device_at(*port_));
}

void Attachment::plug() {
  int ends[2];
  if (socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends) < 0) {
    error_ = std::string("no socket pair: ") + std::strerror(errno);
    return;
  }
  port_ = controller_->plug(ends[1]);
  close(ends[1]);
  error_ = port_ ? "" : controller_->obstacle();
  let_go_ = !port_;
  if (port_) {
    connection_ = std::make_unique<UrbConnection>(ends[0], device_);
  } else {
    close(ends[0]);
  }
}

bool Attachment::take_client(int socket) {
  const std::lock_guard guard(lock_);
  if (connection_) return false;
  connection_ = std::make_unique<UrbConnection>(socket, device_);
  return true;
}

std::string Attachment::error() const {
  const std::lock_guard guard(lock_);
  return error_;
}

bool Attachment::connected() const {
  const std::lock_guard guard(lock_);
  return connection_ && !connection_->ended();
}

std::string Attachment::video_node() const {
  const std::lock_guard guard(lock_);
  return node_;
}

}  // namespace sim
