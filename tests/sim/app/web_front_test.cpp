// camera_sim with its page: the examples of docs/web.md, commands that are refused, and a head that lets go.
#include <gmock/gmock.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/wait.h>

#include <deque>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <thread>

#include "sim/host/frame_check.h"
#include "tests/sim/web/web_client.h"

using testing::AllOf;
using testing::HasSubstr;
using testing::StartsWith;

namespace sim {
namespace {

namespace fs = std::filesystem;
using namespace std::chrono_literals;
using Clock = std::chrono::steady_clock;

std::string contents(const fs::path& path) {
  std::ifstream file(path, std::ios::binary);
  return {std::istreambuf_iterator<char>(file), {}};
}

class WebFrontTest : public testing::Test {
 protected:
  WebFrontTest() {
    char name[] = "/tmp/web-front-test.XXXXXX";
    folder = mkdtemp(name);
    const std::string program = fs::read_symlink("/proc/self/exe").replace_filename("camera_sim");
    process = fork();
    if (process == 0) {
      prctl(PR_SET_PDEATHSIG, SIGTERM);
      fs::current_path(folder);
      if (!freopen("said", "w", stdout)) _exit(1);
      execl(program.c_str(), program.c_str(), "--web", "--size", "320x240", nullptr);
      _exit(127);
    }
    const auto end = Clock::now() + 60s;
    constexpr std::string_view kAddress = "the camera is at http://127.0.0.1:";
    for (std::size_t at = std::string::npos; port == 0 && Clock::now() < end;) {
      std::this_thread::sleep_for(20ms);
      const std::string said = contents(folder / "said");
      if ((at = said.find(kAddress)) != std::string::npos)
        port = static_cast<u16>(std::stoul(said.substr(at + kAddress.size())));
    }
  }
  ~WebFrontTest() override {
    kill(process, SIGINT);
    int status = 0;
    waitpid(process, &status, 0);
    EXPECT_TRUE(WIFEXITED(status)) << status;
    fs::remove_all(folder);
  }

  Json post(const std::string& name, const Json& arguments = Json::object()) {
    WebClient client(port);
    const std::string body = text_of(arguments);
    client.send("POST /api/" + name + " HTTP/1.1\r\n" + client.host() +
                "Content-Length: " + std::to_string(body.size()) + "\r\n\r\n" + body);
    const std::string answer = client.answer();
    Json json = json_in(answer.substr(answer.find("\r\n\r\n")));
    json["status"] = std::stoi(answer.substr(answer.find(' ')));
    return json;
  }
  template <class Condition>
  bool soon(Condition condition) {
    const auto end = Clock::now() + 30s;
    while (!condition() && Clock::now() < end) std::this_thread::sleep_for(20ms);
    return condition();
  }

  fs::path folder;
  pid_t process = -1;
  u16 port = 0;
};

TEST_F(WebFrontTest, ExamplesOfThePageRun) {
  ASSERT_NE(port, 0);
  const std::string documented = contents(SOURCE_FOLDER "/docs/web.md");
  const Json help = post("help");
  for (const Json& command : help["commands"])
    EXPECT_THAT(documented, HasSubstr('`' + command["command"].get<std::string>() + '`'));
  const std::string address = "127.0.0.1:8080";
  int run = 0;
  std::istringstream lines(documented);
  for (std::string line; std::getline(lines, line);) {
    if (!line.starts_with("    ") || line.find(address) == std::string::npos) continue;
    line.replace(line.find(address), address.size(), "127.0.0.1:" + std::to_string(port));
    const std::string in_folder = "cd " + folder.string() + " && " + line + " >answer";
    EXPECT_EQ(std::system(in_folder.c_str()), 0) << line << '\n' << contents(folder / "answer");
    ++run;
  }
  EXPECT_GT(run, 20);
  EXPECT_THAT(contents(folder / "picture.png"), StartsWith("\x89PNG"));
  AVFormatContext* opened = nullptr;
  ASSERT_EQ(avformat_open_input(&opened, (folder / "recording.mkv").c_str(), nullptr, nullptr), 0);
  const AvPtr<AVFormatContext> file(opened);
  ASSERT_GE(avformat_find_stream_info(file.get(), nullptr), 0);
  EXPECT_EQ(file->streams[0]->codecpar->codec_id, AV_CODEC_ID_MJPEG);
  EXPECT_EQ(file->streams[0]->codecpar->width, 640);
}

TEST_F(WebFrontTest, RefusesWhatMakesNoSense) {
  ASSERT_NE(port, 0);
  struct Row {
    const char* name;
    Json arguments;
    int status;
    const char* error;
  };
  const Row rows[] = {
      {"dance", Json::object(), 404, "no such command"},
      {"set", {{"name", "loudness"}, {"value", 1}}, 404, "no such control"},
      {"set", {{"name", "brightness"}}, 400, "\"value\" is missing"},
      {"set", {{"name", "brightness"}, {"value", "8"}}, 400, "wrong kind"},
      {"set", {{"name", "brightness"}, {"value", 1.5}}, 400, "whole number"},
      {"set", {{"name", "brightness"}, {"value", 1e300}}, 400, "whole number"},
      {"set", {{"name", "brightness"}, {"value", 8}, {"unit", 2}}, 400, "not an argument"},
      {"set", {{"name", "brightness"}, {"value", 99}}, 409, "99 is outside 0 to 15; it reads 8"},
      {"extension", {{"selector", 256}, {"request", "get"}}, 400, "0 to 255"},
      {"extension", {{"selector", 1}, {"request", "take"}}, 404, "no such request"},
      {"extension", {{"selector", 1}, {"request", "set"}}, 400, "\"bytes\" is missing"},
      {"extension", {{"selector", 1}, {"request", "set"}, {"bytes", {256}}}, 400, "wrong kind"},
      {"extension",
       {{"selector", 1}, {"request", "set"}, {"bytes", Json::array_t(65, 0)}},
       400,
       "wrong kind"},
      {"stream", {{"format", "mjpeg to x"}}, 404, "no such format"},
      {"stream", {{"format", "mjpeg"}, {"size", "to x"}}, 400, "not a size"},
      {"stream", {{"format", "yuy2"}, {"size", "1920x1080"}}, 400, "the camera has no"},
      {"stream", {{"format", "mjpeg"}, {"rate", 61}}, 400, "not a rate"},
      {"fault", {{"text", "thunder"}}, 400, "no such fault"},
      {"service", {{"order", "dance"}}, 400, "not start, stop or kill"},
      {"service", {{"order", "start"}}, 409, "runs already"},
      {"plug", Json::object(), 409, "plugged in already"},
      {"recording", Json::object(), 409, "nothing was recorded"},
      {"record-stop", Json::object(), 409, "no recording"},
      {"log", {{"level", "loud"}}, 400, "not one of"},
  };
  for (const Row& row : rows) {
    const Json answer = post(row.name, row.arguments);
    EXPECT_EQ(answer["status"], row.status) << row.name << row.arguments << answer;
    EXPECT_THAT(answer.value("error", ""), HasSubstr(row.error)) << row.name << row.arguments;
  }
  WebClient client(port);
  client.send("GET /api/unplug HTTP/1.1\r\n" + client.host() + "\r\n");
  EXPECT_THAT(client.answer(), StartsWith("HTTP/1.1 405"));
  EXPECT_TRUE(soon([&] { return post("state")["stream"]["running"] == true; }));
  const Json state = post("state");
  EXPECT_EQ(state["stream"]["format"], "MJPEG");
  EXPECT_TRUE(state["plugged"] && state["service"]["running"]) << state;
  EXPECT_EQ(post("get", {{"name", "brightness"}})["value"], 8);
}

// Seconds of the conversation between the last time that the head was told to move and its stop.
double stopped_after(const Json& conversation, double told) {
  for (const Json& each : conversation) {
    const std::string request = each["request"];
    if (each["seconds"] > told && request.find("SET_CUR") != std::string::npos &&
        request.find("pan_speed = 0") != std::string::npos)
      return each["seconds"].get<double>() - told;
  }
  return 1000;
}

TEST_F(WebFrontTest, HeadStopsWhenItsPageIsGoneOrSilent) {
  ASSERT_NE(port, 0);
  for (const bool leaves : {true, false}) {
    post("set", {{"name", "pan_absolute"}, {"value", 0}});
    ASSERT_TRUE(soon([&] { return post("state")["head"]["pan"] == 0 && !post("state")["head"]["moving"]; }));
    WebClient page(port);
    ASSERT_TRUE(page.upgrade());
    for (int i = 0; i < 8; ++i) {  // longer than a motion lasts by itself
      page.tell({{"id", i}, {"command", "move"}, {"pan", 5}});
      page.next_with("id");
      std::this_thread::sleep_for(100ms);
    }
    EXPECT_TRUE(post("state")["head"]["moving"]);
    post("get", {{"name", "brightness"}});
    const double now = post("conversation")["conversation"].back()["seconds"];
    if (leaves) page.leave();
    EXPECT_TRUE(soon([&] { return stopped_after(post("conversation")["conversation"], now) < 1000; }));
    EXPECT_LT(stopped_after(post("conversation")["conversation"], now), 0.5);
    EXPECT_TRUE(soon([&] { return !post("state")["head"]["moving"]; }));
  }
}

TEST_F(WebFrontTest, StreamComesBackAfterAnUnplugAndAnEndOfTheService) {
  ASSERT_NE(port, 0);
  const auto streams = [&] {
    const Json stream = post("state")["stream"];
    return stream["running"] == true && stream["frames"] > 3;
  };
  ASSERT_TRUE(soon(streams));
  EXPECT_EQ(post("unplug")["status"], 200);
  EXPECT_EQ(post("get", {{"name", "brightness"}})["status"], 409);
  EXPECT_TRUE(soon([&] { return post("state")["stream"]["running"] == false; }));
  EXPECT_EQ(post("plug")["status"], 200);
  EXPECT_TRUE(soon(streams));
  EXPECT_EQ(post("service", {{"order", "kill"}})["status"], 200);
  EXPECT_TRUE(soon([&] { return post("state")["service"]["running"] == false; }));
  EXPECT_THAT(post("state")["service"]["ended"], HasSubstr("signal 9"));
  EXPECT_EQ(post("service", {{"order", "start"}})["status"], 200);
  EXPECT_TRUE(soon(streams));
}

TEST_F(WebFrontTest, EndsWhilePagesAreThere) {
  ASSERT_NE(port, 0);
  std::deque<WebClient> pages;
  for (int i = 0; i < 5; ++i) {
    ASSERT_TRUE(pages.emplace_back(port).upgrade());
    pages.back().tell({{"id", i}, {"command", "move"}, {"pan", 5}});
  }
  EXPECT_EQ(pages.back().next_with("id")["status"], 200);
  kill(process, SIGINT);
  EXPECT_TRUE(pages.back().closed());
}

// Every format reaches a page as JPEG, and a file that a decoder opens.
TEST_F(WebFrontTest, EveryFormatIsShownAndRecorded) {
  ASSERT_NE(port, 0);
  struct Row {
    const char *format, *file;
    AVCodecID codec;
  };
  const Row rows[] = {{"MJPEG", "recording-1.mkv", AV_CODEC_ID_MJPEG},
                      {"H264", "recording-2.mkv", AV_CODEC_ID_H264},
                      {"YUY2", "recording-3.avi", AV_CODEC_ID_RAWVIDEO},
                      {"H265", "recording-4.mkv", AV_CODEC_ID_HEVC}};
  for (const Row& row : rows) {
    ASSERT_EQ(post("stream", {{"format", row.format}, {"size", "320x240"}})["status"], 200) << row.format;
    ASSERT_EQ(post("record")["status"], 200);
    WebClient page(port);
    ASSERT_TRUE(page.upgrade());
    for (u32 drawn = 0; drawn < 5;) {
      const auto message = page.next();
      ASSERT_TRUE(message) << row.format;
      if (message->kind != WebClient::kBinary) continue;
      drawn = get_le32(reinterpret_cast<const u8*>(message->data.data()));
      page.tell({{"drawn", drawn}});
      const std::string_view jpeg = std::string_view(message->data).substr(4);
      FrameChecker checker(StreamFormat::kMjpeg, 320, 240);
      checker.feed({reinterpret_cast<const u8*>(jpeg.data()), jpeg.size()});
      EXPECT_EQ(checker.report().frames, 1u) << row.format << ": a picture with its counter";
    }
    EXPECT_TRUE(soon([&] { return post("state")["recording"]["frames"] > 5; })) << row.format;
    EXPECT_EQ(post("record-stop")["status"], 200) << row.format;
    AVFormatContext* opened = nullptr;
    ASSERT_EQ(avformat_open_input(&opened, (folder / "out" / row.file).c_str(), nullptr, nullptr), 0);
    const AvPtr<AVFormatContext> file(opened);
    EXPECT_EQ(file->streams[0]->codecpar->codec_id, row.codec);
    const AvPtr<AVPacket> packet(av_packet_alloc());
    int frames = 0;
    for (; av_read_frame(file.get(), packet.get()) >= 0; av_packet_unref(packet.get())) ++frames;
    EXPECT_GT(frames, 3) << row.format;
  }
}

}  // namespace
}  // namespace sim
