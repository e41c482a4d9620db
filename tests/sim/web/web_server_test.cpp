// The web server among clients that are hostile, slow or many.
#include "sim/web/web_server.h"

#include <gmock/gmock.h>

#include <atomic>
#include <chrono>
#include <deque>
#include <fstream>
#include <mutex>
#include <set>
#include <thread>

#include "tests/sim/web/web_client.h"

using testing::AllOf;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::Not;
using testing::StartsWith;

namespace sim {
namespace {

using namespace std::chrono_literals;
using Clock = std::chrono::steady_clock;

class WebServerTest : public testing::Test {
 protected:
  WebServerTest() { server.start(); }

  void take(const WebCommand& command) {
    const std::lock_guard guard(lock);
    commands.push_back(command.name);
    if (holds) {
      held.push_back(command);
    } else {
      server.answer(command, {.status = 200, .json = {{"did", command.name}, {"with", command.arguments}}});
    }
  }
  void page_changed(PageId page, bool opened) {
    const std::lock_guard guard(lock);
    opened ? void(pages.insert(page)) : void(pages.erase(page));
  }
  std::vector<std::string> seen() {
    const std::lock_guard guard(lock);
    return commands;
  }
  std::set<PageId> there() {
    const std::lock_guard guard(lock);
    return pages;
  }
  template <class Condition>
  static bool soon(Condition condition) {
    const auto end = Clock::now() + 20s;
    while (!condition() && Clock::now() < end) std::this_thread::sleep_for(5ms);
    return condition();
  }
  std::string ask(const std::string& head, const std::string& body = "") {
    WebClient client(server.port());
    client.send(head + client.host() + "\r\n" + body);
    return client.answer();
  }
  std::string post(const std::string& name, const std::string& body) {
    return ask("POST /api/" + name + " HTTP/1.1\r\nContent-Length: " + std::to_string(body.size()) + "\r\n",
               body);
  }
  static WebPicture made_picture(u8 content, std::size_t size = 1000) {
    return std::make_shared<const std::vector<u8>>(size, content);
  }

  std::mutex lock;
  std::vector<std::string> commands;
  std::deque<WebCommand> held;
  std::set<PageId> pages;
  std::atomic<bool> holds = false;
  WebServer server{0,
                   {.command = [this](WebCommand command) { take(command); },
                    .page_changed = [this](PageId page, bool opened) { page_changed(page, opened); }}};
};

TEST_F(WebServerTest, CommandsOverHttp) {
  EXPECT_THAT(post("set", R"({"value": 3})"),
              AllOf(StartsWith("HTTP/1.1 200"), HasSubstr(R"({"did":"set","with":{"value":3}})")));
  EXPECT_THAT(post("stop", ""), HasSubstr(R"("did":"stop")"));
  EXPECT_THAT(ask("GET /api/state HTTP/1.1\r\n"), HasSubstr(R"("did":"state")"));
  WebClient client(server.port());  // which asks twice
  for (const char* name : {"one", "two"}) {
    client.send(std::string("GET /api/") + name + " HTTP/1.1\r\n" + client.host() + "\r\n");
    EXPECT_THAT(client.answer(), HasSubstr(name));
  }
}

TEST_F(WebServerTest, FilesOfThePage) {
  EXPECT_THAT(ask("GET / HTTP/1.1\r\n"),
              AllOf(StartsWith("HTTP/1.1 200"), HasSubstr("content-type: text/html; charset=utf-8\r\n"),
                    HasSubstr("content-security-policy: default-src 'none'; script-src 'self'"),
                    HasSubstr("</html>")));
  EXPECT_THAT(ask("GET /main.js HTTP/1.1\r\n"), HasSubstr("text/javascript"));
}

TEST_F(WebServerTest, RefusesWhatIsForeignOrWrongAndDoesNothing) {
  const std::string own = "Host: 127.0.0.1:" + std::to_string(server.port()) + "\r\n";
  const std::string long_body(kLongestWebCommand + 1, ' ');
  struct Row {
    std::string request;
    const char* answer;
  };
  const Row rows[] = {
      {"GET / HTTP/1.1\r\nHost: camera.example\r\n\r\n", "403"},
      {"GET / HTTP/1.1\r\nHost: 127.0.0.1\r\n\r\n", "403"},
      {"GET / HTTP/1.1\r\n\r\n", "403"},
      {"GET / HTTP/1.1\r\n" + own + "Host: camera.example\r\n\r\n", "403"},
      {"POST /api/set HTTP/1.1\r\n" + own + "Origin: http://camera.example\r\nContent-Length: 2\r\n\r\n{}",
       "403"},
      {"POST /api/set HTTP/1.1\r\n" + own + "Origin: null\r\nContent-Length: 2\r\n\r\n{}", "403"},
      {"POST /api/set HTTP/1.1\r\n" + own + "Content-Length: 7\r\n\r\n{\"a\": 1", "400"},
      {"POST /api/set HTTP/1.1\r\n" + own + "Content-Length: 2\r\n\r\n[]", "400"},
      {"POST /api/set HTTP/1.1\r\n" + own + "Content-Length: 4\r\n\r\n{}{}", "400"},
      {"POST /api/set HTTP/1.1\r\n" + own + "Content-Length: 5\r\n\r\n{\"\xFF\"}", "400"},
      {"POST /api/set HTTP/1.1\r\n" + own + "Content-Length: 65537\r\n\r\n" + long_body, "413"},
      {"POST /api/set HTTP/1.1\r\n" + own + "Content-Length: 99999999999\r\n\r\n", "413"},
      {"POST /api/set HTTP/1.1\r\n" + own + "Content-Length: many\r\n\r\n", "4"},
      {"POST /api/set HTTP/1.1\r\n" + own + "\r\n", "411"},
      {"POST / HTTP/1.1\r\n" + own + "Content-Length: 2\r\n\r\n{}", "405"},
      {"PUT /api/set HTTP/1.1\r\n" + own + "Content-Length: 2\r\n\r\n{}", "405"},
      {"DELETE /api/set HTTP/1.1\r\n" + own + "\r\n", "405"},
      {"GET /../../etc/passwd HTTP/1.1\r\n" + own + "\r\n", "40"},
      {"GET /%2e%2e/etc/passwd HTTP/1.1\r\n" + own + "\r\n", "40"},
      {"GET /page.html HTTP/1.1\r\n" + own + "\r\n", "404"},
  };
  for (const Row& row : rows) {
    WebClient client(server.port());
    client.send(row.request);
    EXPECT_THAT(client.answer(), StartsWith(std::string("HTTP/1.1 ") + row.answer))
        << row.request.substr(0, 200);
  }
  EXPECT_THAT(seen(), IsEmpty());
}

TEST_F(WebServerTest, RefusesForeignSockets) {
  struct Row {
    const char *path, *header, *answer;
  };
  const Row rows[] = {{"/socket", "Origin: http://camera.example\r\n", "HTTP/1.0 403"},
                      {"/socket", "Origin: http://127.0.0.1:1\r\n", "HTTP/1.0 403"},
                      {"/other", "", "HTTP/1.0 404"}};
  for (const Row& row : rows) {
    WebClient client(server.port());
    EXPECT_FALSE(client.upgrade(row.path, row.header));
    EXPECT_THAT(client.reply, StartsWith(row.answer)) << row.path << ' ' << row.header;
  }
  WebClient own(server.port());
  EXPECT_TRUE(own.upgrade("/socket", "Origin: http://localhost:" + std::to_string(server.port()) + "\r\n"));
}

TEST_F(WebServerTest, SurvivesRubbish) {
  const std::string rubbish[] = {std::string(200, '\0'),
                                 "\x16\x03\x01\x02\x00\x01\x00\x01\xFC\x03\x03",
                                 "GET " + std::string(100'000, '/') + " HTTP/1.1\r\n\r\n",
                                 "GET / HTTP/1.1\r\nX: " + std::string(100'000, 'x') + "\r\n\r\n",
                                 "PRI * HTTP/2.0\r\n\r\nSM\r\n\r\n",
                                 "\r\n\r\n\r\n"};
  for (const std::string& bytes : rubbish) {
    WebClient client(server.port());
    client.send(bytes);
    client.closed(100ms);
  }
  EXPECT_THAT(ask("GET / HTTP/1.1\r\n"), StartsWith("HTTP/1.1 200"));
  EXPECT_THAT(seen(), IsEmpty());
}

TEST_F(WebServerTest, HalfRequestsHoldNobodyUpAndEnd) {
  std::deque<WebClient> halves;
  for (int i = 0; i < 40; ++i) {
    halves.emplace_back(server.port())
        .send(i % 2 ? "GET / HT"
                    : "POST /api/set HTTP/1.1\r\n" + halves.back().host() + "Content-Length: 100\r\n\r\n{");
  }
  const auto begin = Clock::now();
  EXPECT_THAT(post("set", "{}"), StartsWith("HTTP/1.1 200"));
  EXPECT_LT(Clock::now() - begin, 3s);
  for (WebClient& half : halves) EXPECT_TRUE(half.closed(30s));
  EXPECT_THAT(seen(), testing::ElementsAre("set"));
}

TEST_F(WebServerTest, PagesGetAnswersWithTheirNumbers) {
  WebClient page(server.port());
  ASSERT_TRUE(page.upgrade());
  page.tell({{"id", 7}, {"command", "set"}, {"value", 3}});
  EXPECT_EQ(page.next_with("id"), json_in(R"({"did":"set","with":{"value":3},"id":7,"status":200})"));
  const std::string text = R"({"id": 8, "command": "get"})";  // in pieces
  page.send(WebClient::frame(text.substr(0, 10), WebClient::kText, false));
  page.send(WebClient::frame(text.substr(10), WebClient::kMore));
  EXPECT_EQ(page.next_with("id")["did"], "get");
  for (const char* wrong :
       {"[]", "{", "{\"command\": 3}", "{\"id\": [7], \"command\": \"get\"}", "\"\"", "nothing"}) {
    page.send(WebClient::frame(wrong));
    EXPECT_EQ(page.next_with("status")["status"], 400) << wrong;
  }
  EXPECT_EQ(seen().size(), 2u);
}

TEST_F(WebServerTest, ClosesPagesThatSendTooMuch) {
  const std::string rows[] = {WebClient::frame(std::string(kLongestWebCommand + 1, ' ')),
                              WebClient::frame("{}", WebClient::kBinary),
                              WebClient::frame(std::string(50'000, ' '), WebClient::kText, false) +
                                  WebClient::frame(std::string(50'000, ' '), WebClient::kMore)};
  for (const std::string& bytes : rows) {
    WebClient page(server.port());
    ASSERT_TRUE(page.upgrade());
    page.send(bytes);
    EXPECT_TRUE(page.closed());
  }
  EXPECT_TRUE(soon([&] { return there().empty(); }));
}

TEST_F(WebServerTest, ClosesAPageThatWaitsForNoAnswer) {
  holds = true;
  WebClient page(server.port());
  ASSERT_TRUE(page.upgrade());
  for (std::size_t i = 0; i <= kMostWebAnswers; ++i) page.tell({{"id", i}, {"command", "set"}});
  EXPECT_TRUE(page.closed());
  EXPECT_EQ(seen().size(), kMostWebAnswers);
  for (const WebCommand& command : held) server.answer(command, {});  // nobody is there to take them
  EXPECT_THAT(ask("GET / HTTP/1.1\r\n"), StartsWith("HTTP/1.1 200"));
}

TEST_F(WebServerTest, OnePageTooMany) {
  std::deque<WebClient> clients;
  for (std::size_t i = 0; i < kMostWebPages; ++i) ASSERT_TRUE(clients.emplace_back(server.port()).upgrade());
  WebClient one_more(server.port());
  EXPECT_FALSE(one_more.upgrade());
  EXPECT_THAT(one_more.reply, StartsWith("HTTP/1.0 503"));
  clients.pop_front();
  EXPECT_TRUE(soon([&] { return WebClient(server.port()).upgrade(); }));
}

// The number and the first byte of the next picture.
std::pair<u32, u8> next_picture(WebClient& page) {
  for (auto message = page.next(); message; message = page.next()) {
    if (message->kind != WebClient::kBinary) continue;
    const auto* const bytes = reinterpret_cast<const u8*>(message->data.data());
    return {get_le32(bytes), bytes[4]};
  }
  return {};
}

TEST_F(WebServerTest, APageGetsTheNewestPictureOnceItHasDrawnTheOthers) {
  WebClient page(server.port());
  ASSERT_TRUE(page.upgrade());
  ASSERT_TRUE(soon([&] { return server.watched(); }));
  for (u8 i = 1; i <= kMostPicturesUnderway; ++i) {
    server.show(made_picture(i));
    EXPECT_EQ(next_picture(page), std::pair(u32{i}, i));
  }
  EXPECT_TRUE(soon([&] { return !server.watched(); })) << "until it says that it has drawn one";
  for (u8 i = 10; i <= 20; ++i) server.show(made_picture(i));
  std::this_thread::sleep_for(50ms);
  page.tell({{"drawn", 1}});
  EXPECT_EQ(next_picture(page), std::pair(u32{3}, u8{20}));
  for (const u32 drawn : {3, 2, 1}) page.tell({{"drawn", drawn}});  // in any order
  EXPECT_TRUE(soon([&] { return server.watched(); }));
  for (const u32 number : {4, 5}) {
    server.show(made_picture(30));
    EXPECT_EQ(next_picture(page), std::pair(number, u8{30}));
  }
  EXPECT_TRUE(soon([&] { return !server.watched(); }));
}

long resident_kilobytes() {
  std::ifstream file("/proc/self/statm");
  long size, resident;
  file >> size >> resident;
  return resident * sysconf(_SC_PAGESIZE) / 1024;
}

// Hundreds of megabytes go by pages that have stopped.
TEST_F(WebServerTest, PagesThatDoNotReadCostLittleAndSlowNobody) {
  constexpr std::size_t kSize = 1'000'000;
  constexpr u32 kShown = 400, kPicturesEach = 5;  // of each update
  std::deque<WebClient> stopped;
  for (int i = 0; i < 9; ++i) ASSERT_TRUE(stopped.emplace_back(server.port()).upgrade());
  WebClient page(server.port());
  ASSERT_TRUE(page.upgrade());
  ASSERT_TRUE(soon([&] { return there().size() == 10; }));
  const long before = resident_kilobytes();
  const Json message = {{"state", std::string(kSize / 4, 'x')}};
  std::vector<std::weak_ptr<const std::vector<u8>>> shown;
  std::atomic<bool> over = false;
  std::thread reader([&] {
    for (u32 drawn = 0; !over;) {
      drawn = next_picture(page).first;
      page.tell({{"drawn", drawn}});
    }
  });
  std::map<PageId, int> updates;
  for (u32 i = 0; i < kShown; ++i) {
    const WebPicture picture = made_picture(static_cast<u8>(i), kSize);
    shown.push_back(picture);
    server.show(picture);
    for (const PageId each : there()) {
      if (i % kPicturesEach || !server.ready(each)) continue;
      server.update(each, message);
      ++updates[each];
    }
    std::this_thread::sleep_for(2ms);
  }
  over = true;
  server.show(made_picture(0));  // for the reader, which may wait for one
  reader.join();
  const auto kept = std::ranges::count_if(shown, [](const auto& picture) { return !picture.expired(); });
  EXPECT_LE(kept, 3) << "the newest, one on its way to the server's thread, and one that waits for the pages";
  EXPECT_LT(resident_kilobytes() - before, 500'000);  // a sanitizer keeps what was freed for a while
  int most = 0;
  for (const auto& [each, count] : updates) most = std::max(most, count);
  EXPECT_GT(most, 12) << "the page that reads was told";
  for (const auto& [each, count] : updates) EXPECT_TRUE(count == most || count < 10) << count;
}

TEST_F(WebServerTest, TellsWhenAPageGoesAway) {
  WebClient page(server.port());
  ASSERT_TRUE(page.upgrade());
  ASSERT_TRUE(soon([&] { return there().size() == 1; }));
  page.leave();
  EXPECT_TRUE(soon([&] { return there().empty(); }));
}

TEST(WebServer, TakesAnotherPortWhereOneIsTaken) {
  const WebHandlers none{.command = [](WebCommand) {}, .page_changed = [](PageId, bool) {}};
  WebServer first(0, none);
  ASSERT_GE(first.port(), kFirstWebPort);
  WebServer second(0, none);
  EXPECT_GT(second.port(), first.port());
  WebServer third(first.port(), none);
  EXPECT_EQ(third.port(), 0);
}

}  // namespace
}  // namespace sim
