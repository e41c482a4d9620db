// A web server on the loopback interface: the files of a page, commands as JSON over HTTP and over one web
// socket a page, and pictures to the pages. It knows nothing of what the commands mean. Clients may be slow
// or hostile: what it keeps for each is bounded, and none holds up another.
#pragma once

#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "common/bytes.h"
#include "sim/web/json.h"

namespace sim {

/// A page's web socket; another number for each.
using PageId = u64;

struct WebCommand {
  PageId client = 0;     ///< the page, or the HTTP connection
  bool by_page = false;  ///< came over a web socket
  bool get = false;      ///< came by GET, which is not to change anything
  Json id{};             ///< the page's own number of the command; null over HTTP
  std::string name{};    ///< such as "stream"
  Json arguments = Json::object();
};

/// JSON, or a file to download.
struct WebAnswer {
  int status = 200;
  Json json = Json::object();
  std::string file{};  ///< its path
  std::string type{};  ///< its Content-Type
};
WebAnswer web_error(int status, const std::string& what);

/// Called on the server's thread, and to return at once.
struct WebHandlers {
  std::function<void(WebCommand)> command;                ///< to be answered by answer(), once
  std::function<void(PageId, bool opened)> page_changed;  ///< a page has come, or has gone
};

/// A picture for the pages. It goes to each page that has drawn the earlier ones, the newest first.
using WebPicture = std::shared_ptr<const std::vector<u8>>;

/// How much of anything the server keeps or takes.
constexpr std::size_t kLongestWebCommand = 64 * 1024;  ///< bytes of a command
constexpr std::size_t kMostWebPages = 32;
constexpr std::size_t kMostWebAnswers = 64;  ///< commands of a page without an answer that was sent
constexpr u32 kMostPicturesUnderway = 2;     ///< to a page that has not drawn them
constexpr u16 kFirstWebPort = 8080;
constexpr u16 kWebPorts = 100;  ///< so many are tried

class WebServer {
 public:
  /// `port` 0: the first free one from kFirstWebPort on.
  WebServer(u16 port, WebHandlers handlers);
  ~WebServer();
  WebServer(const WebServer&) = delete;

  /// Returns 0 if no port could be had.
  u16 port() const;
  /// Serve from now on, in a thread of its own, until it is stopped. No handler is called before or after.
  void start();
  void stop();

  // Any thread may call these.
  void answer(const WebCommand& command, WebAnswer answer);
  /// Returns whether the page is there and its last update has been sent.
  bool ready(PageId page) const;
  /// Sends a message to a page that is ready.
  void update(PageId page, const Json& message);
  void show(WebPicture picture);
  /// Returns whether a page has drawn its last pictures and would take one.
  bool watched() const;

 private:
  struct Impl;
  std::unique_ptr<Impl> impl_;
};

}  // namespace sim
