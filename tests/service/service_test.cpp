// The whole service as a process of its own, between a simulated camera and a USB host.
#include <gmock/gmock.h>
#include <poll.h>
#include <signal.h>
#include <sys/inotify.h>
#include <sys/msg.h>
#include <sys/shm.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <chrono>
#include <filesystem>
#include <fstream>
#include <functional>
#include <optional>
#include <thread>

#include "ipc/msg_records.h"
#include "sim/app/service_process.h"
#include "sim/host/usb_host.h"
#include "sim/media/encoder_fault.h"
#include "sim/media/media.h"
#include "sim/parties/collector.h"
#include "sim/parties/server.h"
#include "sim/parties/server_fault.h"
#include "sim/seam/node.h"
#include "sim/seam/run.h"
#include "vencbuf/enc_frame.h"

using namespace std::chrono_literals;
using testing::HasSubstr;

namespace {

std::string service_program() {
  return (std::filesystem::read_symlink("/proc/self/exe").parent_path() / "uvc_gadget_sim").string();
}

// The camera without its service: every outside party, each of which a test may take away.
class CameraTest : public testing::Test {
 protected:
  // The last words of a service that has ended may still be on their way.
  bool said(const char* text) {
    return wait_until([&] { return service->last_lines().find(text) != std::string::npos; }, 5s);
  }

  CameraTest() {
    serve({.pool_address = sim::Media::pool_address(), .pool_size = sim::Media::pool_size()});
    server->on_encoder_settings([this](const EncoderSettingsMessage& message) { media.apply(message); });
  }
  ~CameraTest() override {
    service.reset();
    server.reset();
    std::fclose(output);
  }

  // A system server that begins anew.
  void serve(const sim::ServerOptions& options) {
    server.reset();
    server = std::make_unique<sim::Server>(options);
  }

  void start(sim::ServiceOutput how = sim::ServiceOutput::kLogged) {
    std::vector<std::string> command{service_program()};
    if (wait_in_kernel) command.push_back("--wait-in-kernel");
    service = std::make_unique<sim::ServiceProcess>(command, output, false, how);
  }

  void start_and_plug_in(sim::ServiceOutput how = sim::ServiceOutput::kLogged) {
    start(how);
    ASSERT_TRUE(node.wait_for_device(20s)) << service->last_lines();
    host.replug();
    ASSERT_TRUE(host.enumerate()) << host.error();
  }

  bool wait_until(const std::function<bool()>& condition, std::chrono::seconds limit = 20s) {
    const auto end = std::chrono::steady_clock::now() + limit;
    while (!condition()) {
      if (std::chrono::steady_clock::now() > end) return false;
      std::this_thread::sleep_for(5ms);
    }
    return true;
  }

  bool picture_comes() {
    return wait_until([this] { return host.progress().first_picture_ms >= 0; });
  }

  // Streams until `pictures` have come and returns what was wrong with them, empty if nothing was.
  std::string stream(const sim::StreamChoice& choice, unsigned long pictures) {
    if (!host.start(choice)) return host.error();
    wait_until([&] { return host.progress().payloads >= pictures + 3; });
    const sim::StreamReport report = host.stop("").report;
    if (report.whole() && report.frames + 1 >= pictures) return "";
    return std::to_string(report.frames) + " pictures, torn " + std::to_string(report.torn) + ", lost " +
           std::to_string(report.lost) + ", stale " + std::to_string(report.stale) + ", repeated " +
           std::to_string(report.repeated) + ", empty " + std::to_string(report.empty);
  }

  // Exit status 0 within a second.
  void expect_end(int signal = SIGTERM) {
    const auto seconds = service->stop(10, signal);
    ASSERT_TRUE(seconds) << "had to be killed\n" << service->last_lines();
    EXPECT_LT(*seconds, kEndLimit);
    EXPECT_EQ(service->how_it_ended(), "exit status 0") << service->last_lines();
    EXPECT_THAT(node.protocol_errors(), testing::IsEmpty());
  }

  // The same in order, not by the limit for that: the node was closed.
  void expect_clean_end(int signal = SIGTERM) {
    expect_end(signal);
    const std::string calls = node.call_log();
    const auto opened = calls.rfind("OPEN -> 0\n");
    EXPECT_TRUE(opened == calls.npos || calls.find("CLOSE", opened) != calls.npos);
  }

  long entries(const char* what) const {
    const auto folder = std::filesystem::path("/proc") / std::to_string(service->pid()) / what;
    return std::distance(std::filesystem::directory_iterator(folder), {});
  }
  // How often the service has mapped files whose name contains `what`.
  long mappings(const std::string& what) const {
    std::ifstream maps("/proc/" + std::to_string(service->pid()) + "/maps");
    long count = 0;
    for (std::string line; std::getline(maps, line);) count += line.find(what) != std::string::npos;
    return count;
  }

  // What the service holds after its first stream, it holds after `use` as well, and no more.
  void leaks_nothing(const std::function<void()>& use) {
    start_and_plug_in();
    ASSERT_TRUE(host.start(kMjpeg) && picture_comes());
    host.stop("");
    const long files = entries("fd");
    ASSERT_NO_FATAL_FAILURE(use());
    const auto holds = [this] {
      return std::array{entries("fd"), mappings("video0"), mappings("camera_phys")};
    };
    const std::array expected{files, 3L, 1L};  // of the physical memory, the pool
    EXPECT_TRUE(wait_until([&] { return holds() == expected; }, 2s)) << testing::PrintToString(holds());
    expect_clean_end();
  }

#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
  static constexpr double kEndLimit = 3;  // the sanitizers' own end-of-process work comes on top
#else
  static constexpr double kEndLimit = 1;
#endif

  static constexpr u16 kExtensionUnit = 3 << 8;
  static constexpr sim::StreamChoice kMjpeg = {sim::StreamFormat::kMjpeg, {320, 240}, 30};
  static constexpr sim::StreamChoice kYuy2 = {sim::StreamFormat::kYuy2, {320, 240}, 30};

  sim::Run run;
  sim::NodeHost node;
  sim::Media media{{}};
  std::unique_ptr<sim::Server> server;
  sim::Collector collector{{}};
  sim::Conversation conversation{node, {}};
  sim::UsbHost host{node, conversation, false};
  std::FILE* output = std::tmpfile();
  std::unique_ptr<sim::ServiceProcess> service;
  bool wait_in_kernel = false;
};

TEST_F(CameraTest, StartsInOrderStreamsEveryFormatAndEnds) {
  run.set_register(0x20260010, 7);
  start_and_plug_in();
  const sim::StreamChoice choices[] = {
      kMjpeg,
      {sim::StreamFormat::kH264, {640, 480}, 30},
      kYuy2,
      {sim::StreamFormat::kH265, {320, 240}, 30},
      {sim::StreamFormat::kYuy2, {640, 480}, 15},
  };
  for (const sim::StreamChoice& choice : choices) EXPECT_EQ(stream(choice, 12), "") << sim::name_of(choice);
  EXPECT_EQ(run.shell_log(),
            "rmmod  /opt/vcam/ko/extdrv/g_webcam.ko\nrmmod  /opt/vcam/ko/extdrv/dwc_otg.ko\n"
            "insmod /opt/vcam/ko/extdrv/dwc_otg.ko\ninsmod /opt/vcam/ko/extdrv/g_webcam.ko\n");
  EXPECT_EQ(run.register_value(0x200F0074), 0u);
  EXPECT_EQ(run.register_value(0x200F01A8), 0u);
  EXPECT_THAT(run.register_log(), HasSubstr("0x20260010: 7 -> 4\n"));
  EXPECT_THAT(run.register_log(), HasSubstr("0x20260010: 4 -> 0\n")) << "port 0 is driven high, then low";
  expect_clean_end();
  EXPECT_EQ(server->encoder_settings().running, 0);
  EXPECT_TRUE(
      wait_until([this] { return collector.text().find("exit uvc class threads...") != std::string::npos; }));
}

TEST_F(CameraTest, SigtermWhileIdleOrStreamingAlsoWithATroubledEncoder) {
  const std::pair<std::optional<sim::StreamChoice>, sim::EncoderFault> cases[] = {
      {std::nullopt, sim::EncoderFault::kNone}, {kMjpeg, sim::EncoderFault::kNone},
      {kYuy2, sim::EncoderFault::kNone},        {kMjpeg, sim::EncoderFault::kSilent},
      {kMjpeg, sim::EncoderFault::kWrongSize},
  };
  for (const auto& [choice, fault] : cases) {
    media.set_fault(sim::EncoderFault::kNone);
    start_and_plug_in();
    ASSERT_TRUE(!choice || (host.start(*choice) && picture_comes()));
    media.set_fault(fault);
    if (fault != sim::EncoderFault::kNone) std::this_thread::sleep_for(300ms);
    expect_clean_end();
    host.stop("");
    service.reset();
  }
}

TEST_F(CameraTest, SigtermWithADeadServerAndAFullQueue) {
  start_and_plug_in();
  server->set_fault(sim::ServerFault::kDead);
  const int queue = msgget(sim::run_key(kVeltoMsgKey), 0);
  const VeltoMsgBuf anything{kServerMsgType, 2, 0, 0, {}};
  while (msgsnd(queue, &anything, kVeltoMsgPayload, IPC_NOWAIT) == 0) continue;
  EXPECT_TRUE(host.start(kMjpeg)) << host.error();  // the main thread now waits for room
  std::this_thread::sleep_for(200ms);
  expect_clean_end();
}

TEST_F(CameraTest, AServerWithoutAnswersDelaysTheControlsButNotTheVideo) {
  start_and_plug_in();
  ASSERT_TRUE(host.start(kMjpeg) && picture_comes());
  const u16 processing_unit = 2 << 8, brightness = 2 << 8;
  const auto server_received = [this](const std::string& line) {
    const auto lines = server->received();
    return std::ranges::any_of(lines, [&](const std::string& each) { return each.starts_with(line); });
  };
  u8 value = 0;
  for (const auto fault :
       {sim::ServerFault::kDead, sim::ServerFault::kMute, sim::ServerFault::kMisdirected}) {
    SCOPED_TRACE(static_cast<int>(fault));
    server->set_fault(fault);
    const unsigned long before = host.progress().report.frames;
    const auto asked = std::chrono::steady_clock::now();
    const auto reading = node.control({0xA1, 0x81, brightness, processing_unit, 2}, {}, 30s);
    const auto waited = std::chrono::steady_clock::now() - asked;
    EXPECT_EQ(reading.data.size(), 2u);
    EXPECT_GT(waited, 4s);
    EXPECT_LT(waited, 4500ms);
    EXPECT_GE(host.progress().report.frames, before + 108);
    server->set_fault(sim::ServerFault::kNone);
    const std::array<u8, 2> setting = {++value, 0};
    EXPECT_FALSE(node.control({0x21, 0x01, brightness, processing_unit, 2}, setting).stalled);
    EXPECT_TRUE(wait_until(
        [&] { return server_received("sys 39 81 01 04 A4 00 00 00 0" + std::to_string(value) + " FF"); }));
  }
  host.stop("");
  expect_clean_end();
}

TEST_F(CameraTest, SigtermWhileTheNodeRefusesEverything) {
  for (const char* fault : {"fail OPEN *", "fail S_FMT *", "fail QBUF *"}) {
    ASSERT_TRUE(node.script("clear"));
    ASSERT_TRUE(node.script(fault));
    start();
    ASSERT_TRUE(wait_until(
        [this] { return run.shell_log().find("insmod /opt/vcam/ko/extdrv/g_webcam") != std::string::npos; }));
    std::this_thread::sleep_for(200ms);
    expect_clean_end();
    service.reset();
  }
}

TEST_F(CameraTest, EndsWhileTheMediaLibraryWaitsForAPicture) {
  start_and_plug_in();
  ASSERT_TRUE(host.start(kYuy2) && picture_comes());
  media.set_fault(sim::EncoderFault::kSilent);
  std::this_thread::sleep_for(300ms);
  kill(service->pid(), SIGTERM);
  std::this_thread::sleep_for(500ms);
  EXPECT_TRUE(service->running()) << "it had time to end in order";
  const auto rest = service->stop(10);  // a second signal does not delay the end
  EXPECT_LT(rest.value_or(10), kEndLimit - 0.5);
  EXPECT_EQ(service->how_it_ended(), "exit status 0");
}

TEST_F(CameraTest, CommandsThatDoNotReturnHoldUpNeitherTheEndNorTheHost) {
  const std::string_view hanging = "#!/bin/sh\nsleep 2\necho late >>$(dirname $0)/late\n";
  const u16 reboot = 24 << 8;
  for (const int signal : {SIGINT, SIGTERM}) {
    for (const char* tool : {"/bin/rmmod", "/bin/insmod"}) {
      const std::string working = run.read_file(tool);
      run.write_file(tool, hanging);
      const auto before = run.shell_log().size();
      start();
      ASSERT_TRUE(wait_until([&] { return run.shell_log().find(tool + 5, before) != std::string::npos; }));
      const auto heard = server->received().size();
      expect_end(signal);
      EXPECT_TRUE(wait_until([&] { return server->received().size() > heard; }, 2s)) << "of the end";
      EXPECT_TRUE(run.shell_log().ends_with("dwc_otg.ko\n") == (tool[5] == 'i')) << "none after that one";
      run.write_file(tool, working);
    }
  }
  std::this_thread::sleep_for(2500ms);
  EXPECT_EQ(run.read_file("/bin/late"), "") << "no command outlives its service";
  run.write_file("/bin/reboot", hanging);
  start_and_plug_in();
  EXPECT_FALSE(node.control({0x21, 0x01, reboot, kExtensionUnit, 1}, std::array<u8, 1>{1}).stalled);
  EXPECT_FALSE(node.control({0xA1, 0x81, reboot, kExtensionUnit, 2}, {}, 1s).timed_out);
  EXPECT_THAT(run.shell_log(), testing::EndsWith("reboot\n"));
  EXPECT_EQ(stream(kMjpeg, 5), "");
  expect_clean_end(SIGINT);
}

TEST_F(CameraTest, OutputThatNobodyTakesHoldsUpNothing) {
  run.write_file("/opt/params/print.conf", "uvc_gadget=debug\n");
  using enum sim::ServiceOutput;
  for (const auto how : {kUnread, kReaderGone, kClosed}) {
    SCOPED_TRACE(static_cast<int>(how));
    start_and_plug_in(how);
    const auto files = std::filesystem::path("/proc") / std::to_string(service->pid()) / "fd";
    for (const char* fd : {"0", "1", "2"}) {
      EXPECT_EQ(std::filesystem::read_symlink(files / fd) == "/dev/null", how == kClosed || *fd == '0');
    }
    for (int i = 0; i < 300; ++i) {  // each is worth a line
      ASSERT_FALSE(node.control({0xA1, 0x86, 0, kExtensionUnit, 1}, {}, 5s).timed_out);
    }
    EXPECT_EQ(stream(kMjpeg, 12), "");
    expect_clean_end();
    service.reset();
  }
}

TEST_F(CameraTest, RingThatCannotBeAttachedEndsTheServiceInOrder) {
  const int ring = shmget(sim::run_key(VENC_RING_KEY), 0, 0);
  if (ring >= 0) shmctl(ring, IPC_RMID, nullptr);
  ASSERT_GE(shmget(sim::run_key(VENC_RING_KEY), 4096, IPC_CREAT | 0600), 0);
  start();
  EXPECT_TRUE(wait_until([this] { return !service->running(); }));
  EXPECT_EQ(service->how_it_ended(), "exit status 0");
  EXPECT_TRUE(said("vencbuf_get_init failed!"));
  EXPECT_THAT(service->last_lines(), testing::ContainsRegex("\\[main\\]-[0-9]+: .*vencbuf_get_init failed!"));
  EXPECT_THAT(run.shell_log(), HasSubstr("insmod /opt/vcam/ko/extdrv/g_webcam.ko"))
      << "after the full start-up";
}

TEST_F(CameraTest, StreamsLeakNothing) {
  leaks_nothing([this] {
    for (int i = 0; i < 100; ++i) {
      ASSERT_TRUE(host.start(i % 2 ? kYuy2 : kMjpeg)) << i << host.error();
      ASSERT_TRUE(picture_comes()) << "start " << i << "\n" << service->last_lines();
      host.stop("");
    }
  });
}

TEST_F(CameraTest, ReplugsLeakNothing) {
  leaks_nothing([this] {
    for (int i = 0; i < 100; ++i) {
      ASSERT_TRUE(host.start(kMjpeg)) << i << host.error();
      ASSERT_TRUE(picture_comes()) << "replug " << i << "\n" << service->last_lines();
      host.unplug();
      host.stop("");
      host.replug();
    }
  });
}

TEST_F(CameraTest, SecondStartAfterAKillFindsTheCameraUsable) {
  for (const sim::StreamChoice& choice : {kMjpeg, kYuy2}) {
    start_and_plug_in();
    ASSERT_TRUE(host.start(choice) && picture_comes());
    kill(service->pid(), SIGKILL);
    ASSERT_TRUE(wait_until([this] { return !service->running(); }));
    host.unplug();
    host.stop("");
    service.reset();
    start_and_plug_in();
    EXPECT_EQ(stream(choice, 5), "");
    expect_clean_end();
    service.reset();
  }
}

TEST_F(CameraTest, LevelFileIsReadAgainOnSigusr1WhichDoesNotDisturbTheStream) {
  start_and_plug_in();
  ASSERT_TRUE(host.start(kMjpeg) && picture_comes());
  run.write_file("/opt/params/print.conf", "uvc_gadget=error\n");
  for (int i = 0; i < 300; ++i) {
    kill(service->pid(), SIGUSR1);
    std::this_thread::sleep_for(1ms);
  }
  const std::string before = service->last_lines();
  EXPECT_TRUE(host.stop("").report.whole());
  host.unplug();
  host.replug();
  EXPECT_TRUE(wait_until([this] {
    const std::string calls = node.call_log();
    return calls.find("event=CONNECT", calls.rfind("event=DISCONNECT")) != std::string::npos;
  }));
  EXPECT_EQ(service->last_lines(), before) << "level error prints nothing";
  expect_clean_end();
}

TEST_F(CameraTest, WaitsInTheKernelAndServesAlike) {
  wait_in_kernel = true;
  start_and_plug_in();
  const auto sleeps = [this] {
    long count = 0;
    for (const auto& task :
         std::filesystem::directory_iterator("/proc/" + std::to_string(service->pid()) + "/task")) {
      constexpr std::string_view kSleeps = "voluntary_ctxt_switches:";
      std::ifstream status(task.path() / "status");
      for (std::string line; std::getline(status, line);)
        if (line.starts_with(kSleeps)) count += std::atol(line.c_str() + kSleeps.size());
    }
    return count;
  };
  const long before = sleeps();
  std::this_thread::sleep_for(1s);
  EXPECT_LT(sleeps() - before, 30) << "idle; about 1000 otherwise";
  for (const sim::StreamChoice& choice : {kMjpeg, kYuy2, kMjpeg}) EXPECT_EQ(stream(choice, 10), "");
  run.write_file("/opt/params/print.conf", "uvc_gadget=info\n");
  pollfd opened = {.fd = inotify_init1(IN_CLOEXEC), .events = POLLIN, .revents = 0};
  inotify_add_watch(opened.fd, run.path("/opt/params/print.conf").c_str(), IN_OPEN);
  kill(service->pid(), SIGUSR1);
  EXPECT_EQ(poll(&opened, 1, 200), 1) << "an idle service reads the level file at once";
  close(opened.fd);
  expect_clean_end();
}

TEST_F(CameraTest, SaysWhyItEndsWithoutAValidParameterRecord) {
  serve({.ready = false});
  const auto begin = std::chrono::steady_clock::now();
  start();
  EXPECT_TRUE(wait_until([this] { return !service->running(); }, 30s));
  EXPECT_GT(std::chrono::steady_clock::now() - begin, 10s);
  EXPECT_EQ(service->how_it_ended(), "exit status 255");
  EXPECT_TRUE(said("uvc_gadget: no valid parameter record from the system server")) << service->last_lines();
  EXPECT_THAT(service->last_lines(), HasSubstr("Timeout!"));
  EXPECT_EQ(run.shell_log(), "") << "no module is touched";
}

TEST_F(CameraTest, WaitsForTheMemoryPool) {
  serve({.pool_address = 0});
  start();
  std::this_thread::sleep_for(500ms);
  EXPECT_TRUE(service->running());
  EXPECT_GT(server->received().size(), 10u);
  EXPECT_EQ(run.shell_log(), "");
}

TEST(Service, StartsInSpiteOfAWordThatItDoesNotKnow) {
  sim::Run run;
  testing::internal::CaptureStderr();
  const int status = std::system((service_program() + " word").c_str());
  EXPECT_EQ(WEXITSTATUS(status), 255) << "for want of a system server";
  EXPECT_THAT(testing::internal::GetCapturedStderr(),
              testing::MatchesRegex("uvc_gadget: unknown option word .*\n.*uvc_gadget_sim\n(.*\n)+"));
}

}  // namespace
