#include <arpa/inet.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>

#include "sim/web/web_server_impl.h"

namespace sim {

namespace {

constexpr unsigned kMostConnections = 128;
constexpr int kHeaderSeconds = 5, kIdleSeconds = 10;
constexpr u16 kPingSeconds = 10, kHangUpSeconds = 20;  //< of a page that answers nothing

// A free port of the loopback interface may be taken by another program before it is used here; then the
// server does not start there.
bool is_free(u16 port) {
  const int probe = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  const int yes = 1;
  setsockopt(probe, SOL_SOCKET, SO_REUSEADDR, &yes, sizeof(yes));
  const sockaddr_in address{
      .sin_family = AF_INET, .sin_port = htons(port), .sin_addr = {htonl(INADDR_LOOPBACK)}, .sin_zero = {}};
  const bool free = bind(probe, reinterpret_cast<const sockaddr*>(&address), sizeof(address)) == 0;
  close(probe);
  return free;
}

}  // namespace

std::string web_header(lws* socket, lws_token_indexes token) {
  std::string value(static_cast<std::size_t>(lws_hdr_total_length(socket, token)) + 1, '\0');
  const int length = lws_hdr_copy(socket, value.data(), static_cast<int>(value.size()), token);
  value.resize(static_cast<std::size_t>(std::max(length, 0)));
  return value;
}

bool has_web_header(lws* socket, lws_token_indexes token) { return lws_hdr_total_length(socket, token) > 0; }

WebServer::Impl::Impl(u16 wanted_port, WebHandlers wanted_handlers) : handlers(std::move(wanted_handlers)) {
  lws_set_log_level(0, nullptr);
  lws_context_creation_info info{};
  info.options = LWS_SERVER_OPTION_EXPLICIT_VHOSTS | LWS_SERVER_OPTION_DISABLE_IPV6;
  info.user = this;
  info.fd_limit_per_thread = kMostConnections;
  info.max_http_header_pool = kMostConnections;
  context = lws_create_context(&info);
  if (!context) return;
  const u16 first = wanted_port ? wanted_port : kFirstWebPort, tries = wanted_port ? 1 : kWebPorts;
  for (u16 i = 0; i < tries && port == 0; ++i) {
    if (const auto each = static_cast<u16>(first + i); is_free(each)) listen(each);
  }
}

WebServer::Impl::~Impl() {
  stop();
  if (context) lws_context_destroy(context);
}

void WebServer::Impl::stop() {
  stopping = true;
  if (!thread.joinable()) return;
  wake();
  thread.join();
}

void WebServer::Impl::listen(u16 wanted_port) {
  protocols[0].name = "page";
  protocols[0].callback = callback;
  protocols[0].rx_buffer_size = kWebPiece;
  idle.secs_since_valid_ping = kPingSeconds;
  idle.secs_since_valid_hangup = kHangUpSeconds;
  lws_context_creation_info info{};
  info.port = wanted_port;
  info.iface = "127.0.0.1";
  info.protocols = protocols;
  info.options = LWS_SERVER_OPTION_DISABLE_IPV6 | LWS_SERVER_OPTION_FAIL_UPON_UNABLE_TO_BIND;
  info.timeout_secs = kHeaderSeconds;
  info.keepalive_timeout = kIdleSeconds;
  info.retry_and_idle_policy = &idle;
  if (lws_create_vhost(context, &info)) port = wanted_port;
}

void WebServer::Impl::serve() {
  while (!stopping && lws_service(context, 0) >= 0) continue;
}

int WebServer::Impl::callback(lws* socket, lws_callback_reasons reason, void*, void* in, std::size_t length) {
  auto* const impl = static_cast<Impl*>(lws_context_user(lws_get_context(socket)));
  return impl->handle(socket, reason, {static_cast<const char*>(in), in ? length : 0});
}

int WebServer::Impl::handle(lws* socket, lws_callback_reasons reason, std::string_view in) {
  switch (reason) {
    case LWS_CALLBACK_HTTP:
      return begin_request(connection(socket), std::string(in));
    case LWS_CALLBACK_HTTP_BODY:
      return take_body(connection(socket), in);
    case LWS_CALLBACK_HTTP_BODY_COMPLETION:
      return end_body(connection(socket));
    case LWS_CALLBACK_HTTP_WRITEABLE:
      return write_body(connection(socket));
    case LWS_CALLBACK_HTTP_CONFIRM_UPGRADE:
      return confirm_upgrade(socket, in.data());
    case LWS_CALLBACK_ESTABLISHED:
      return begin_page(connection(socket));
    case LWS_CALLBACK_RECEIVE:
      return take_message(connection(socket), in);
    case LWS_CALLBACK_SERVER_WRITEABLE:
      return write_message(connection(socket));
    case LWS_CALLBACK_CLOSED:
    case LWS_CALLBACK_WSI_DESTROY:
      end(socket);
      return 0;
    case LWS_CALLBACK_EVENT_WAIT_CANCELLED:
      take_inbox();
      return 0;
    default:
      return 0;
  }
}

// Returns why a request is refused: a web site must not drive the camera through the user's browser.
std::string WebServer::Impl::refusal(lws* socket) const {
  const std::string hosts[] = {"127.0.0.1:" + std::to_string(port), "localhost:" + std::to_string(port)};
  const std::string host = web_header(socket, WSI_TOKEN_HOST);
  if (std::ranges::find(hosts, host) == std::end(hosts)) return "foreign Host";
  if (!has_web_header(socket, WSI_TOKEN_ORIGIN)) return "";
  const std::string origin = web_header(socket, WSI_TOKEN_ORIGIN);
  const bool own =
      std::ranges::any_of(hosts, [&](const std::string& each) { return origin == "http://" + each; });
  return own ? "" : "foreign Origin";
}

WebConnection& WebServer::Impl::connection(lws* socket) {
  WebConnection& client = connections[socket];
  if (!client.socket) {
    client.socket = socket;
    client.number = ++last_number;
  }
  return client;
}

void WebServer::Impl::end(lws* socket) {
  const auto found = connections.find(socket);
  if (found == connections.end()) return;
  const PageId number = found->second.number;
  const bool was_page = found->second.is_page;
  connections.erase(found);
  if (!was_page) return;
  {
    const std::lock_guard guard(lock);
    updates.erase(number);
  }
  note_watching();
  if (!stopping) handlers.page_changed(number, false);
}

void WebServer::Impl::note_watching() {
  watching = std::ranges::any_of(connections, [&](const auto& each) { return wants_picture(each.second); });
}

void WebServer::Impl::take_inbox() {
  std::vector<std::pair<WebCommand, WebAnswer>> came;
  {
    const std::lock_guard guard(lock);
    came.swap(answers);
    if (picture) newest = picture;
    for (auto& [socket, client] : connections) {
      if (!client.is_page) continue;
      if (picture) client.picture = picture;
      if (auto& text = updates[client.number]; text && !text->empty())
        client.update = std::exchange(*text, {});
      if (client.update || (client.picture && wants_picture(client))) lws_callback_on_writable(socket);
    }
    picture = nullptr;
  }
  for (auto& [command, answer] : came) take_answer(command, std::move(answer));
}

void WebServer::Impl::take_answer(const WebCommand& command, WebAnswer answer) {
  const auto found = std::ranges::find_if(
      connections, [&](const auto& each) { return each.second.number == command.client; });
  if (found == connections.end()) return;
  WebConnection& client = found->second;
  if (!command.by_page) {
    if (!client.request.answered && reply(client, std::move(answer)) != 0)
      lws_set_timeout(client.socket, PENDING_TIMEOUT_USER_OK, LWS_TO_KILL_ASYNC);
    return;
  }
  answer.json["id"] = command.id;
  answer.json["status"] = answer.status;
  client.answers.push_back(text_of(answer.json));
  lws_callback_on_writable(client.socket);
}

WebServer::WebServer(u16 port, WebHandlers handlers)
    : impl_(std::make_unique<Impl>(port, std::move(handlers))) {}
WebServer::~WebServer() = default;

u16 WebServer::port() const { return impl_->port; }

void WebServer::start() {
  impl_->thread = std::thread([this] { impl_->serve(); });
}

void WebServer::answer(const WebCommand& command, WebAnswer answer) {
  {
    const std::lock_guard guard(impl_->lock);
    impl_->answers.emplace_back(command, std::move(answer));
  }
  impl_->wake();
}

void WebServer::stop() { impl_->stop(); }

bool WebServer::ready(PageId page) const {
  const std::lock_guard guard(impl_->lock);
  const auto found = impl_->updates.find(page);
  return found != impl_->updates.end() && !found->second;
}

void WebServer::update(PageId page, const Json& message) {
  std::string text = text_of(message);
  {
    const std::lock_guard guard(impl_->lock);
    if (const auto found = impl_->updates.find(page); found != impl_->updates.end())
      found->second = std::move(text);
  }
  impl_->wake();
}

void WebServer::show(WebPicture picture) {
  {
    const std::lock_guard guard(impl_->lock);
    impl_->picture = std::move(picture);
  }
  impl_->wake();
}

bool WebServer::watched() const { return impl_->watching; }

}  // namespace sim
