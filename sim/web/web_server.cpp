#include "sim/web/web_server.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <libwebsockets.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <charconv>
#include <deque>
#include <map>
#include <mutex>
#include <optional>
#include <thread>
#include <utility>

#include "sim/web/page_files.h"

namespace sim {

namespace {

constexpr std::string_view kCommands = "/api/", kSocket = "/socket";
constexpr char kJsonType[] = "application/json";
constexpr std::size_t kPiece = 32 * 1024;             //< bytes of a body that are written at once
constexpr std::size_t kLongestIgnored = 1024 * 1024;  //< bytes of a body that is read only to be refused
constexpr unsigned kMostConnections = 128;
constexpr int kHeaderSeconds = 5, kIdleSeconds = 10;
constexpr u16 kPingSeconds = 10, kHangUpSeconds = 20;  //< of a page that answers nothing

// What every answer carries: a browser is to load nothing from elsewhere, show the page in no other, guess no
// types and keep nothing.
struct Header {
  const char *name, *value;
};
constexpr Header kHeaders[] = {
    {"content-security-policy:",
     "default-src 'none'; script-src 'self'; style-src 'self'; img-src 'self' blob:; connect-src 'self'; "
     "base-uri 'none'; form-action 'none'; frame-ancestors 'none'"},
    {"cross-origin-resource-policy:", "same-origin"},
    {"referrer-policy:", "no-referrer"},
    {"x-content-type-options:", "nosniff"},
    {"cache-control:", "no-store"},
};

// A body that is being written: the bytes, or a file.
struct Body {
  std::string bytes;
  int file = -1;
  std::size_t left = 0;

  Body() = default;
  Body(Body&& other) noexcept
      : bytes(std::move(other.bytes)), file(std::exchange(other.file, -1)), left(other.left) {}
  Body& operator=(Body&& other) noexcept {
    std::swap(bytes, other.bytes);
    std::swap(file, other.file);
    left = other.left;
    return *this;
  }
  ~Body() {
    if (file >= 0) close(file);
  }

  // Returns false if the file ends too early.
  bool next(std::span<unsigned char> piece) {
    if (file < 0) {
      std::copy_n(bytes.end() - static_cast<std::ptrdiff_t>(left), piece.size(), piece.begin());
    } else if (read(file, piece.data(), piece.size()) != std::ssize(piece)) {
      return false;
    }
    left -= piece.size();
    return true;
  }
};

struct Request {
  WebCommand command;
  std::string body;
  std::size_t expected = 0, came = 0;  //< bytes of the body
  bool answered = true;
};

struct Connection {
  lws* socket = nullptr;
  PageId number = 0;
  Request request;  //< over HTTP
  Body reply;
  bool closes = false;  //< after the reply
  // Of a page.
  bool is_page = false;
  std::string message;         //< as far as it came
  std::size_t unanswered = 0;  //< its commands, up to the moment when the answer is sent
  std::deque<std::string> answers;
  std::optional<std::string> update;
  WebPicture picture;
  u32 picture_number = 0, drawn = 0;
};

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

std::string header_of(lws* socket, lws_token_indexes token) {
  std::string value(static_cast<std::size_t>(lws_hdr_total_length(socket, token)) + 1, '\0');
  const int length = lws_hdr_copy(socket, value.data(), static_cast<int>(value.size()), token);
  value.resize(static_cast<std::size_t>(std::max(length, 0)));
  return value;
}

bool has(lws* socket, lws_token_indexes token) { return lws_hdr_total_length(socket, token) > 0; }

}  // namespace

WebAnswer web_error(int status, const std::string& what) {
  return {.status = status, .json = {{"error", what}}, .file = {}, .type = {}};
}

struct WebServer::Impl {
  Impl(u16 wanted_port, WebHandlers wanted_handlers);
  ~Impl();

  static int callback(lws* socket, lws_callback_reasons reason, void*, void* in, std::size_t length);
  int handle(lws* socket, lws_callback_reasons reason, std::string_view in);
  void listen(u16 wanted_port);
  void serve();
  void stop();

  std::string refusal(lws* socket) const;
  Connection& connection(lws* socket);
  int begin_request(Connection& client, std::string path);
  int begin_command(Connection& client, std::string name);
  int take_body(Connection& client, std::string_view piece);
  int end_body(Connection& client);
  int reply(Connection& client, WebAnswer answer);
  int reply(Connection& client, int status, const char* type, Body body, const std::string& file_name);
  int write_body(Connection& client);

  int confirm_upgrade(lws* socket, std::string_view protocol);
  int begin_page(Connection& client);
  int take_message(Connection& client, std::string_view piece);
  void take_page_command(Connection& client, Json message);
  int write_message(Connection& client);
  void end(lws* socket);

  void take_inbox();
  void take_answer(const WebCommand& command, WebAnswer answer);
  bool wants_picture(const Connection& page) const {
    return page.is_page && page.picture_number - page.drawn < kMostPicturesUnderway;
  }
  void note_watching();
  void wake() { lws_cancel_service(context); }

  const WebHandlers handlers;
  lws_context* context = nullptr;
  lws_protocols protocols[2] = {};
  lws_retry_bo_t idle = {};
  u16 port = 0;
  // The server's thread only.
  std::map<lws*, Connection> connections;
  PageId last_number = 0;
  WebPicture newest;
  // What other threads bring.
  std::mutex lock;
  std::vector<std::pair<WebCommand, WebAnswer>> answers;
  // Of every page; nothing: none waits. An empty one is in the connection already.
  std::map<PageId, std::optional<std::string>> updates;
  WebPicture picture;
  std::atomic<bool> watching = false, stopping = false;
  std::thread thread;
};

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
  protocols[0].rx_buffer_size = kPiece;
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
  const std::string host = header_of(socket, WSI_TOKEN_HOST);
  if (std::ranges::find(hosts, host) == std::end(hosts)) return "foreign Host";
  if (!has(socket, WSI_TOKEN_ORIGIN)) return "";
  const std::string origin = header_of(socket, WSI_TOKEN_ORIGIN);
  const bool own =
      std::ranges::any_of(hosts, [&](const std::string& each) { return origin == "http://" + each; });
  return own ? "" : "foreign Origin";
}

Connection& WebServer::Impl::connection(lws* socket) {
  Connection& client = connections[socket];
  if (!client.socket) {
    client.socket = socket;
    client.number = ++last_number;
  }
  return client;
}

int WebServer::Impl::begin_request(Connection& client, std::string path) {
  client.request = {};
  const std::string why = refusal(client.socket);
  const bool post = has(client.socket, WSI_TOKEN_POST_URI);
  client.closes = post;  // a refused request's body would be taken for the next request
  if (!why.empty()) return reply(client, web_error(403, why));
  if (!post && !has(client.socket, WSI_TOKEN_GET_URI)) {
    client.closes = true;
    return reply(client, web_error(405, "GET or POST is expected"));
  }
  if (path.starts_with(kCommands)) return begin_command(client, path.substr(kCommands.size()));
  const auto file = std::ranges::find(page_files(), path, &PageFile::path);
  if (file == page_files().end()) return reply(client, web_error(404, "no such file: " + path));
  if (post) return reply(client, web_error(405, "only GET is expected here"));
  Body body;
  body.bytes.assign(file->content.begin(), file->content.end());
  return reply(client, 200, file->type, std::move(body), "");
}

int WebServer::Impl::begin_command(Connection& client, std::string name) {
  Request& request = client.request;
  request.command.client = client.number;
  request.command.name = std::move(name);
  request.command.get = !client.closes;
  request.answered = false;
  if (request.command.get) {
    handlers.command(request.command);
    return 0;
  }
  const std::string length = header_of(client.socket, WSI_TOKEN_HTTP_CONTENT_LENGTH);
  const auto [rest, failure] =
      std::from_chars(length.data(), length.data() + length.size(), request.expected);
  if (length.empty()) return reply(client, web_error(411, "the length of the body is missing"));
  if (failure != std::errc() || rest != length.data() + length.size())
    return reply(client, web_error(400, "the length of the body is no number"));
  if (request.expected > kLongestIgnored) return reply(client, web_error(413, "the body is too long"));
  return 0;
}

int WebServer::Impl::take_body(Connection& client, std::string_view piece) {
  Request& request = client.request;
  request.came += piece.size();
  if (request.came <= kLongestWebCommand) request.body += piece;
  return 0;
}

int WebServer::Impl::end_body(Connection& client) {
  Request& request = client.request;
  if (request.answered) return 0;
  client.closes = false;
  if (request.came > kLongestWebCommand) return reply(client, web_error(413, "the body is too long"));
  if (!request.body.empty()) {
    request.command.arguments = json_in(request.body);
    if (!request.command.arguments.is_object())
      return reply(client, web_error(400, "the body is not a JSON object"));
  }
  request.body.clear();
  lws_set_timeout(client.socket, NO_PENDING_TIMEOUT, 0);
  handlers.command(request.command);
  return 0;
}

int WebServer::Impl::reply(Connection& client, WebAnswer answer) {
  Body body;
  if (answer.file.empty()) {
    body.bytes = text_of(answer.json) + '\n';
    return reply(client, answer.status, kJsonType, std::move(body), "");
  }
  struct stat status {};
  body.file = open(answer.file.c_str(), O_RDONLY | O_CLOEXEC);
  if (body.file < 0 || fstat(body.file, &status) < 0)
    return reply(client, web_error(500, answer.file + " cannot be read"));
  body.left = static_cast<std::size_t>(status.st_size);
  const std::string name = answer.file.substr(answer.file.rfind('/') + 1);
  return reply(client, answer.status, answer.type.c_str(), std::move(body), name);
}

int WebServer::Impl::reply(Connection& client, int status, const char* type, Body body,
                           const std::string& file_name) {
  client.request.answered = true;
  if (body.file < 0) body.left = body.bytes.size();
  client.reply = std::move(body);
  std::vector<unsigned char> head(LWS_PRE + 2048);
  unsigned char *at = head.data() + LWS_PRE, *const begin = at, *const end = head.data() + head.size();
  const auto add = [&](const char* name, const std::string& value) {
    return lws_add_http_header_by_name(client.socket, reinterpret_cast<const unsigned char*>(name),
                                       reinterpret_cast<const unsigned char*>(value.data()),
                                       static_cast<int>(value.size()), &at, end) == 0;
  };
  bool good = lws_add_http_common_headers(client.socket, static_cast<unsigned>(status), type,
                                          client.reply.left, &at, end) == 0;
  for (const Header& header : kHeaders) good = good && add(header.name, header.value);
  if (!file_name.empty())
    good = good && add("content-disposition:", "attachment; filename=\"" + file_name + '"');
  if (!good || lws_finalize_write_http_header(client.socket, begin, &at, end) != 0) return -1;
  lws_callback_on_writable(client.socket);
  return 0;
}

int WebServer::Impl::write_body(Connection& client) {
  if (!client.request.answered) return 0;
  const std::size_t size = std::min(client.reply.left, kPiece);
  std::vector<unsigned char> piece(LWS_PRE + size);
  if (!client.reply.next({piece.data() + LWS_PRE, size})) return -1;
  const bool last = client.reply.left == 0;
  if (lws_write(client.socket, piece.data() + LWS_PRE, size, last ? LWS_WRITE_HTTP_FINAL : LWS_WRITE_HTTP) <
      0)
    return -1;
  if (!last) return lws_callback_on_writable(client.socket) < 0 ? -1 : 0;
  client.reply = {};
  return client.closes || lws_http_transaction_completed(client.socket) ? -1 : 0;
}

int WebServer::Impl::confirm_upgrade(lws* socket, std::string_view protocol) {
  const bool wrong_place = header_of(socket, WSI_TOKEN_GET_URI) != kSocket;
  if (protocol != "websocket") return -1;
  const auto pages = std::ranges::count_if(connections, [](const auto& each) { return each.second.is_page; });
  const int status = !refusal(socket).empty()                           ? 403
                     : wrong_place                                      ? 404
                     : static_cast<std::size_t>(pages) >= kMostWebPages ? 503
                                                                        : 0;
  if (!status) return 0;
  lws_return_http_status(socket, static_cast<unsigned>(status), nullptr);
  return -1;
}

int WebServer::Impl::begin_page(Connection& client) {
  client.is_page = true;
  {
    const std::lock_guard guard(lock);
    updates.emplace(client.number, std::nullopt);
  }
  client.picture = newest;
  note_watching();
  handlers.page_changed(client.number, true);
  lws_callback_on_writable(client.socket);
  return 0;
}

int WebServer::Impl::take_message(Connection& client, std::string_view piece) {
  if (lws_is_first_fragment(client.socket)) client.message.clear();
  client.message += piece;
  if (client.message.size() > kLongestWebCommand || lws_frame_is_binary(client.socket)) return -1;
  if (!lws_is_final_fragment(client.socket)) return 0;
  Json message = json_in(std::exchange(client.message, {}));
  if (client.unanswered >= kMostWebAnswers) return -1;  // it does not read its answers
  if (message.is_object() && message.contains("drawn") && message["drawn"].is_number_unsigned()) {
    // A browser may finish the later of two pictures first.
    client.drawn = std::max(client.drawn, std::min(message["drawn"].get<u32>(), client.picture_number));
    note_watching();
    if (client.picture) lws_callback_on_writable(client.socket);
    return 0;
  }
  ++client.unanswered;
  take_page_command(client, std::move(message));
  return 0;
}

void WebServer::Impl::take_page_command(Connection& client, Json message) {
  WebCommand command{.client = client.number, .by_page = true};
  if (!message.is_object()) return take_answer(command, web_error(400, "the message is not a JSON object"));
  if (message.contains("id")) command.id = message["id"];
  if (!message.contains("command") || !message["command"].is_string())
    return take_answer(command, web_error(400, "\"command\" is missing"));
  command.name = message["command"];
  message.erase("id");
  message.erase("command");
  command.arguments = std::move(message);
  handlers.command(std::move(command));
}

// Writes one message, so that the socket can refuse the next: answers first, then the update and a picture.
int WebServer::Impl::write_message(Connection& client) {
  std::string text;
  bool is_text = true;
  if (!client.answers.empty()) {
    text = std::move(client.answers.front());
    client.answers.pop_front();
    --client.unanswered;
  } else if (client.update) {
    text = std::move(*client.update);
    client.update.reset();
    const std::lock_guard guard(lock);
    if (const auto waiting = updates.find(client.number); waiting != updates.end()) waiting->second.reset();
  } else if (client.picture && wants_picture(client)) {
    const WebPicture picture_now = std::exchange(client.picture, nullptr);
    const u32 number = ++client.picture_number;
    text.resize(sizeof(number) + picture_now->size());
    put_le32(reinterpret_cast<u8*>(text.data()), number);
    std::ranges::copy(*picture_now, text.begin() + sizeof(number));
    is_text = false;
    note_watching();
  } else {
    return 0;
  }
  std::string message(LWS_PRE, '\0');
  message += text;
  const auto written = lws_write(client.socket, reinterpret_cast<unsigned char*>(message.data()) + LWS_PRE,
                                 text.size(), is_text ? LWS_WRITE_TEXT : LWS_WRITE_BINARY);
  if (written < 0) return -1;
  lws_callback_on_writable(client.socket);
  return 0;
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
  Connection& client = found->second;
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
