#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <charconv>

#include "sim/web/page_files.h"
#include "sim/web/web_server_impl.h"

namespace sim {

namespace {

constexpr std::string_view kCommands = "/api/";
constexpr char kJsonType[] = "application/json";
constexpr std::size_t kLongestIgnored = 1024 * 1024;  //< bytes of a body that is read only to be refused

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

}  // namespace

WebBody::~WebBody() {
  if (file >= 0) close(file);
}

bool WebBody::next(std::span<unsigned char> piece) {
  if (file < 0) {
    std::copy_n(bytes.end() - static_cast<std::ptrdiff_t>(left), piece.size(), piece.begin());
  } else if (read(file, piece.data(), piece.size()) != std::ssize(piece)) {
    return false;
  }
  left -= piece.size();
  return true;
}

WebAnswer web_error(int status, const std::string& what) {
  return {.status = status, .json = {{"error", what}}, .file = {}, .type = {}};
}

int WebServer::Impl::begin_request(WebConnection& client, std::string path) {
  client.request = {};
  const std::string why = refusal(client.socket);
  const bool post = has_web_header(client.socket, WSI_TOKEN_POST_URI);
  client.closes = post;  // a refused request's body would be taken for the next request
  if (!why.empty()) return reply(client, web_error(403, why));
  if (!post && !has_web_header(client.socket, WSI_TOKEN_GET_URI)) {
    client.closes = true;
    return reply(client, web_error(405, "GET or POST is expected"));
  }
  if (path.starts_with(kCommands)) return begin_command(client, path.substr(kCommands.size()));
  const auto file = std::ranges::find(page_files(), path, &PageFile::path);
  if (file == page_files().end()) return reply(client, web_error(404, "no such file: " + path));
  if (post) return reply(client, web_error(405, "only GET is expected here"));
  WebBody body;
  body.bytes.assign(file->content.begin(), file->content.end());
  return reply(client, 200, file->type, std::move(body), "");
}

int WebServer::Impl::begin_command(WebConnection& client, std::string name) {
  WebRequest& request = client.request;
  request.command.client = client.number;
  request.command.name = std::move(name);
  request.command.get = !client.closes;
  request.answered = false;
  if (request.command.get) {
    handlers.command(request.command);
    return 0;
  }
  const std::string length = web_header(client.socket, WSI_TOKEN_HTTP_CONTENT_LENGTH);
  const auto [rest, failure] =
      std::from_chars(length.data(), length.data() + length.size(), request.expected);
  if (length.empty()) return reply(client, web_error(411, "the length of the body is missing"));
  if (failure != std::errc() || rest != length.data() + length.size())
    return reply(client, web_error(400, "the length of the body is no number"));
  if (request.expected > kLongestIgnored) return reply(client, web_error(413, "the body is too long"));
  return 0;
}

int WebServer::Impl::take_body(WebConnection& client, std::string_view piece) {
  WebRequest& request = client.request;
  request.came += piece.size();
  if (request.came <= kLongestWebCommand) request.body += piece;
  return 0;
}

int WebServer::Impl::end_body(WebConnection& client) {
  WebRequest& request = client.request;
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

int WebServer::Impl::reply(WebConnection& client, WebAnswer answer) {
  WebBody body;
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

int WebServer::Impl::reply(WebConnection& client, int status, const char* type, WebBody body,
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

int WebServer::Impl::write_body(WebConnection& client) {
  if (!client.request.answered) return 0;
  const std::size_t size = std::min(client.reply.left, kWebPiece);
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

}  // namespace sim
