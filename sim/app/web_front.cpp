#include "sim/app/web_front.h"

#include <condition_variable>
#include <deque>
#include <map>
#include <utility>

#include "sim/app/options.h"
#include "sim/app/web_commands.h"
#include "sim/app/web_pictures.h"
#include "sim/web/web_server.h"

namespace sim {

namespace {

using namespace std::chrono_literals;
using Clock = Session::Clock;

constexpr auto kNewsInterval = 200ms;  // of each page
constexpr auto kLookInterval = 100ms;  // at service, cable and stream, while no command comes
constexpr auto kRetryInterval = 1s;    // of a stream that does not start
constexpr StreamChoice kFirstStream = {StreamFormat::kMjpeg, {1280, 720}, 0};

// Commands on their way from the server's thread to the one that carries them out.
class CommandQueue {
 public:
  void put(WebCommand command) {
    const std::lock_guard guard(lock_);
    commands_.push_back(std::move(command));
    changed_.notify_all();
  }
  std::optional<WebCommand> next(std::chrono::milliseconds limit) {
    std::unique_lock guard(lock_);
    if (!changed_.wait_for(guard, limit, [&] { return !commands_.empty(); })) return std::nullopt;
    WebCommand command = std::move(commands_.front());
    commands_.pop_front();
    return command;
  }

 private:
  std::mutex lock_;
  std::condition_variable changed_;
  std::deque<WebCommand> commands_;
};

// Sends every page its news, in a thread of its own, so that a command that takes long does not hold them up.
class News {
 public:
  News(WebState& state, WebServer& server) : state_(state), server_(server) {}
  ~News() {
    {
      const std::lock_guard guard(lock_);
      over_ = true;
    }
    changed_.notify_all();
    if (thread_.joinable()) thread_.join();
  }

  void start() {
    state_.look();
    thread_ = std::thread([this] { run(); });
  }

  void page_changed(PageId page, bool opened) {
    const std::lock_guard guard(lock_);
    if (opened) {
      seen_.try_emplace(page);
    } else {
      seen_.erase(page);
    }
  }

 private:
  void run() {
    std::unique_lock guard(lock_);
    while (!changed_.wait_for(guard, kNewsInterval, [&] { return over_; })) {
      state_.look();
      for (auto& [page, seen] : seen_) {
        if (server_.ready(page)) server_.update(page, state_.news(seen));
      }
    }
  }

  WebState& state_;
  WebServer& server_;
  std::mutex lock_;
  std::condition_variable changed_;
  std::map<PageId, WebState::Seen> seen_;
  bool over_ = false;
  std::thread thread_;
};

class WebFront {
 public:
  explicit WebFront(Session& session);
  ~WebFront();

  u16 port() const { return server_.port(); }
  void run();

 private:
  void take(WebCommand command);
  void tell_status();

  Session& session_;
  CommandQueue queue_;
  Recording recording_;
  WebState state_;
  Web web_;
  HeadMotion motion_;
  WebServer server_;
  News news_;
  WebPictures pictures_;
};

WebFront::WebFront(Session& session)
    : session_(session),
      recording_(session.options().out + "/recording-"),
      state_(session.camera(), recording_),
      web_{.prompt = {.session = session}, .recording = recording_, .state = state_},
      motion_(session.camera().conversation),
      server_(session.options().port, {.command = [this](WebCommand command) { take(std::move(command)); },
                                       .page_changed =
                                           [this](PageId page, bool opened) {
                                             news_.page_changed(page, opened);
                                             if (!opened) motion_.release(page);
                                           }}),
      news_(state_, server_),
      pictures_(
          [this](WebPictures::Jpeg jpeg) {
            server_.show(std::make_shared<const WebPictures::Jpeg>(std::move(jpeg)));
          },
          [this] { return server_.watched(); }) {
  const Options& options = session.options();
  web_.wanted = kFirstStream;
  web_.wanted->rate = options.rate;
  web_.wanted->format = options.format.value_or(kFirstStream.format);
  web_.wanted->size =
      options.size.value_or(options.format ? host_format(*options.format).sizes[0] : kFirstStream.size);
  session.camera().host.on_frame([this](const ReceivedFrame& frame) {
    recording_.take(frame);
    pictures_.take(frame);
  });
}

WebFront::~WebFront() {
  server_.stop();
  if (web_.prompt.stream) stop_stream(web_.prompt);
  session_.camera().host.on_frame([](const ReceivedFrame&) {});
}

// On the server's thread. A motion does not wait for the commands before it.
void WebFront::take(WebCommand command) {
  WebAnswer wrong = check(command);
  if (wrong.status != 200) return server_.answer(command, std::move(wrong));
  if (command.name != kMoveCommand) return queue_.put(std::move(command));
  motion_.hold(command.client, speeds_in(command.arguments));
  server_.answer(command, {});
}

void WebFront::tell_status() {
  ServiceProcess& service = session_.service();
  WebStatus status{.wanted = web_.wanted, .trouble = web_.trouble};
  if (service.running()) {
    status.service = service.pid();
  } else {
    status.service_ended = service.how_it_ended();
  }
  if (web_.prompt.stream) status.stream = web_.prompt.stream->choice;
  const auto over = [now = Clock::now()](const Web::SetFault& fault) {
    return fault.end && *fault.end <= now;
  };
  std::erase_if(web_.faults, over);
  for (const Web::SetFault& fault : web_.faults) status.faults.push_back(fault.text);
  state_.set(std::move(status));
}

void WebFront::run() {
  tell_status();
  news_.start();
  server_.start();
  for (Clock::time_point next_look{}; !interrupted;) {
    if (const auto command = queue_.next(kLookInterval)) server_.answer(*command, carry_out(web_, *command));
    if (Clock::now() >= next_look) {
      look_after_stream(web_);
      next_look = Clock::now() + (web_.trouble.empty() ? kLookInterval : kRetryInterval);
    }
    tell_status();
    std::fflush(stdout);
  }
}

}  // namespace

void web(Session& session) {
  WebFront front(session);
  if (!front.port()) return session.complain("no port could be had for the page");
  std::printf("the camera is at http://127.0.0.1:%u/ (Ctrl-C ends it)\n", front.port());
  std::fflush(stdout);
  front.run();
}

}  // namespace sim
