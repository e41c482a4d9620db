// The parts of the web server: requests over HTTP are in web_http.cpp, the pages' sockets in web_pages.cpp,
// and what serves both in web_server.cpp.
#pragma once

#include <libwebsockets.h>

#include <atomic>
#include <deque>
#include <map>
#include <mutex>
#include <optional>
#include <span>
#include <thread>
#include <utility>

#include "sim/web/web_server.h"

namespace sim {

constexpr std::size_t kWebPiece = 32 * 1024;  ///< bytes that are read or written at once

/// A body that is being written: the bytes, or a file.
struct WebBody {
  std::string bytes;
  int file = -1;
  std::size_t left = 0;

  WebBody() = default;
  WebBody(WebBody&& other) noexcept
      : bytes(std::move(other.bytes)), file(std::exchange(other.file, -1)), left(other.left) {}
  WebBody& operator=(WebBody&& other) noexcept {
    std::swap(bytes, other.bytes);
    std::swap(file, other.file);
    left = other.left;
    return *this;
  }
  ~WebBody();

  /// Returns false if the file ends too early.
  bool next(std::span<unsigned char> piece);
};

struct WebRequest {
  WebCommand command;
  std::string body;
  std::size_t expected = 0, came = 0;  ///< bytes of the body
  bool answered = true;
};

struct WebConnection {
  lws* socket = nullptr;
  PageId number = 0;
  WebRequest request;  ///< over HTTP
  WebBody reply;
  bool closes = false;  ///< after the reply
  // Of a page.
  bool is_page = false;
  std::string message;         ///< as far as it came
  std::size_t unanswered = 0;  ///< its commands, up to the moment when the answer is sent
  std::deque<std::string> answers;
  std::optional<std::string> update;
  WebPicture picture;
  u32 picture_number = 0, drawn = 0;
};

/// Returns "" for a header that is not there.
std::string web_header(lws* socket, lws_token_indexes token);
bool has_web_header(lws* socket, lws_token_indexes token);

struct WebServer::Impl {
  Impl(u16 wanted_port, WebHandlers wanted_handlers);
  ~Impl();

  static int callback(lws* socket, lws_callback_reasons reason, void*, void* in, std::size_t length);
  int handle(lws* socket, lws_callback_reasons reason, std::string_view in);
  void listen(u16 wanted_port);
  void serve();
  void stop();

  std::string refusal(lws* socket) const;
  WebConnection& connection(lws* socket);
  void end(lws* socket);
  void take_inbox();
  void take_answer(const WebCommand& command, WebAnswer answer);
  void note_watching();
  void wake() { lws_cancel_service(context); }

  // web_http.cpp
  int begin_request(WebConnection& client, std::string path);
  int begin_command(WebConnection& client, std::string name);
  int take_body(WebConnection& client, std::string_view piece);
  int end_body(WebConnection& client);
  int reply(WebConnection& client, WebAnswer answer);
  int reply(WebConnection& client, int status, const char* type, WebBody body, const std::string& file_name);
  int write_body(WebConnection& client);

  // web_pages.cpp
  int confirm_upgrade(lws* socket, std::string_view protocol);
  int begin_page(WebConnection& client);
  int take_message(WebConnection& client, std::string_view piece);
  void take_page_command(WebConnection& client, Json message);
  int write_message(WebConnection& client);
  bool wants_picture(const WebConnection& page) const {
    return page.is_page && page.picture_number - page.drawn < kMostPicturesUnderway;
  }

  const WebHandlers handlers;
  lws_context* context = nullptr;
  lws_protocols protocols[2] = {};
  lws_retry_bo_t idle = {};
  u16 port = 0;
  // The server's thread only.
  std::map<lws*, WebConnection> connections;
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

}  // namespace sim
