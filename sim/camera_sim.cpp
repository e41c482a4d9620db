// camera_sim: runs the camera service as a child process among a simulated camera and a USB host, streams
// from it, and says whether the pictures arrive whole and in time.
#include <signal.h>
#include <unistd.h>

#include <algorithm>
#include <cctype>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <memory>
#include <thread>
#include <vector>

#include "sim/collector.h"
#include "sim/media.h"
#include "sim/node.h"
#include "sim/options.h"
#include "sim/report.h"
#include "sim/run.h"
#include "sim/server.h"
#include "sim/service_process.h"
#include "sim/timeline.h"
#include "sim/usb_host.h"

namespace sim {
namespace {

using Clock = std::chrono::steady_clock;
using namespace std::chrono_literals;

constexpr double kServiceEnd = 1;       ///< seconds from SIGTERM to the service's end
constexpr double kServicePatience = 5;  ///< seconds until it is killed
constexpr auto kDeviceLimit = 15s;      ///< from the service's start to the device on the bus
constexpr double kUnplugged = 0.5;      ///< seconds of the planned unplug

struct PlannedStream {
  StreamFormat format;
  FrameSize size;
  bool unplug = false;  ///< in its middle; it is started again then
};
constexpr PlannedStream kPlan[] = {
    {StreamFormat::kMjpeg, {1280, 720}},
    {StreamFormat::kMjpeg, {1920, 1080}},
    {StreamFormat::kH264, {1920, 1080}},
    {.format = StreamFormat::kMjpeg, .size = {1280, 720}, .unplug = true},
    {StreamFormat::kH265, {1280, 720}},
    {StreamFormat::kYuy2, {640, 480}},
    {StreamFormat::kYuy2, {320, 240}},
};

volatile sig_atomic_t interrupted = 0;

void catch_signals() {
  struct sigaction action = {};
  action.sa_handler = [](int) { interrupted = 1; };
  for (const int number : {SIGINT, SIGTERM, SIGHUP}) sigaction(number, &action, nullptr);
  signal(SIGPIPE, SIG_IGN);  // a closed standard output is no reason to leave things behind
}

/// Everything but the service.
struct Camera {
  explicit Camera(const Options& options);

  Run run;
  Media media;
  Server server;
  Collector collector;
  NodeHost node;
  UsbHost host;
};

void set_fault(Camera& camera, const Fault& fault, bool on) {
  switch (fault.kind) {
    case FaultKind::kNode:
      if (camera.node.script(on ? fault.node_text : "clear")) return;
      std::fprintf(stderr, "camera_sim: the node does not know the fault \"%s\"\n", fault.node_text.c_str());
      return;
    case FaultKind::kUnplug:
      return on ? camera.host.unplug() : camera.host.replug();
    case FaultKind::kServerDead:
      return camera.server.set_fault(on ? ServerFault::kDead : ServerFault::kNone);
    case FaultKind::kServerSlow:
      return camera.server.set_fault(on ? ServerFault::kSlow : ServerFault::kNone);
    case FaultKind::kEncoderSilent:
      return camera.media.set_fault(on ? EncoderFault::kSilent : EncoderFault::kNone);
    case FaultKind::kEncoderDead:
      return camera.media.set_fault(on ? EncoderFault::kDead : EncoderFault::kNone);
    case FaultKind::kEncoderWrongSize:
      return camera.media.set_fault(on ? EncoderFault::kWrongSize : EncoderFault::kNone);
    case FaultKind::kLogQueueFull:
      camera.collector.pause(on);
      if (on) camera.collector.fill_queue();
  }
}

Camera::Camera(const Options& options)
    : media(options.media),
      server({.pool_address = Media::pool_address(), .pool_size = Media::pool_size()}),
      collector({.output = options.log_level ? stdout : nullptr,
                 .level = options.log_level.value_or(0),
                 .contains = {}}),
      host(node, options.paced) {
  server.on_encoder_settings([this](const EncoderSettingsMessage& message) { media.apply(message); });
  if (!options.print_level.empty()) {
    run.write_file("/opt/params/print.conf", "uvc_gadget=" + options.print_level + '\n');
  }
  for (const Fault& fault : options.faults) {
    if (fault.at == 0) set_fault(*this, fault, true);
  }
}

std::string service_program(const Options& options) {
  if (!options.service.empty()) return options.service;
  return std::filesystem::read_symlink("/proc/self/exe").replace_filename("uvc_gadget_sim");
}

/// "replug MJPEG 1280x720" as a file name.
std::string picture_path(const Options& options, std::string name) {
  std::ranges::replace(name, ' ', '-');
  std::ranges::transform(name, name.begin(), [](unsigned char c) { return std::tolower(c); });
  return options.out + '/' + name + ".png";
}

void write_lines(const std::string& path, const std::vector<std::string>& lines) {
  std::ofstream file(path);
  for (const std::string& line : lines) file << line << '\n';
}

/// The service between its start and its end.
class Session {
 public:
  Session(const Options& options, std::FILE* service_log);

  bool wait_for_device();
  void stream(const PlannedStream& planned);
  void end_service();
  void print_counts();
  bool good() const { return good_; }
  bool going_on() { return !interrupted && service_.running(); }

 private:
  void schedule(const Fault& fault);
  ReportRow stream_once(const std::string& name, const StreamChoice& choice, unsigned unplugs);
  bool wait_for_cable();
  void complain(const std::string& what);
  template <class Condition>
  bool wait(Clock::duration limit, Condition condition);

  const Options& options_;
  Camera camera_;
  ServiceProcess service_;
  Timeline timeline_;
  bool good_ = true;
};

Session::Session(const Options& options, std::FILE* service_log)
    : options_(options), camera_(options), service_(service_program(options), service_log, options.verbose) {
  for (const Fault& fault : options.faults) schedule(fault);
}

void Session::schedule(const Fault& fault) {
  if (fault.at > 0) timeline_.in(fault.at, [this, fault] { set_fault(camera_, fault, true); });
  if (!fault.duration) return;
  timeline_.in(fault.at + *fault.duration, [this, fault] { set_fault(camera_, fault, false); });
}

void Session::complain(const std::string& what) {
  std::printf("%s\n", what.c_str());
  good_ = false;
}

/// False when the limit passed, the service ended or Ctrl-C came before the condition held.
template <class Condition>
bool Session::wait(Clock::duration limit, Condition condition) {
  const auto end = Clock::now() + limit;
  while (!condition()) {
    if (!going_on() || Clock::now() > end) return false;
    std::this_thread::sleep_for(10ms);
  }
  return true;
}

bool Session::wait_for_device() {
  const auto begin = Clock::now();
  if (!wait(kDeviceLimit, [&] { return camera_.node.wait_for_device(0ms); })) {
    if (going_on()) complain("the device did not appear");
    return false;
  }
  std::printf("service %d, device after %.2f s, files under %s\n", service_.pid(),
              std::chrono::duration<double>(Clock::now() - begin).count(), run_root().c_str());
  if (options_.stay)
    std::printf("attach a debugger with: gdb -p %d; Ctrl-C ends everything\n", service_.pid());
  camera_.host.replug();
  if (camera_.host.enumerate()) return true;
  complain("the device is not as it should be: " + camera_.host.error());
  return false;
}

/// Streams once, and again after every unplug.
void Session::stream(const PlannedStream& planned) {
  const StreamChoice choice{planned.format, planned.size, options_.rate};
  if (planned.unplug) {
    timeline_.in(options_.duration / 2, [this] { camera_.host.unplug(); });
    timeline_.in(options_.duration / 2 + kUnplugged, [this] { camera_.host.replug(); });
  }
  for (std::string name = name_of(choice);; name = "replug " + name_of(choice)) {
    const unsigned unplugs = camera_.host.unplugs();
    const ReportRow row = stream_once(name, choice, unplugs);
    print_row(row);
    good_ = good_ && is_good(row);
    if (camera_.host.unplugs() == unplugs || !wait_for_cable()) return;
  }
}

/// One stream, until its time is over or the cable is pulled.
ReportRow Session::stream_once(const std::string& name, const StreamChoice& choice, unsigned unplugs) {
  UsbHost& host = camera_.host;
  ReportRow row{name, choice.rate, {}, {}};
  if (host.start(choice)) {
    const auto length = options_.stay ? 24h : std::chrono::duration<double>(options_.duration);
    const auto end = Clock::now() + std::chrono::duration_cast<Clock::duration>(length);
    const auto over = [&] { return host.unplugs() != unplugs || Clock::now() >= end; };
    while (going_on() && !over()) {
      wait(200ms, over);
      row.result = host.progress();
      print_progress(row);
    }
    if (!service_.running()) host.unplug();  // as the driver does it
    row.result = host.stop(picture_path(options_, name));
  }
  row.error = service_.running() ? host.error() : "the service has ended";
  return row;
}

bool Session::wait_for_cable() {
  if (!wait(kDeviceLimit, [&] { return camera_.host.plugged(); })) {
    if (going_on()) complain("the cable was not put back");
    return false;
  }
  if (camera_.host.enumerate()) return true;
  complain("after the replug: " + camera_.host.error());
  return false;
}

void Session::end_service() {
  if (!service_.running()) {
    complain("the service ended early: " + service_.how_it_ended() + "; its last lines:\n" +
             service_.last_lines());
    return;
  }
  const auto seconds = service_.stop(kServicePatience);
  if (!seconds) return complain("the service did not end within 5 s of SIGTERM and was killed");
  std::printf("service: %s, %.3f s after SIGTERM\n", service_.how_it_ended().c_str(), *seconds);
  good_ = good_ && service_.ended_with_success() && *seconds <= kServiceEnd;
}

void Session::print_counts() {
  const Collector::Counts log = camera_.collector.counts();
  const Media::Counts media = camera_.media.counts();
  std::printf(
      "log: %lu lines, %lu malformed, %lu dropped by the service; server: %zu requests, %lu refused; "
      "media: %lu pictures, %lu encoded, %lu dropped\n",
      log.lines, log.malformed, service_.dropped_log_lines(), camera_.server.received().size(),
      camera_.server.refused(), media.pictures, media.encoded, media.dropped);
  write_lines(options_.out + "/server.log", camera_.server.received());
  write_lines(options_.out + "/node.log", {camera_.node.call_log()});
  for (const std::string& error : camera_.node.protocol_errors()) complain("gadget driver: " + error);
}

std::vector<PlannedStream> planned_streams(const Options& options) {
  if (!options.one_stream()) return {std::begin(kPlan), std::end(kPlan)};
  const StreamFormat format = options.format.value_or(StreamFormat::kMjpeg);
  const auto planned = std::ranges::find(kPlan, format, &PlannedStream::format);
  return {{format, options.size.value_or(planned->size)}};
}

int run(const Options& options) {
  std::error_code failure;
  std::filesystem::create_directories(options.out, failure);
  const std::string log_path = options.out + "/service.log";
  const std::unique_ptr<std::FILE, int (*)(std::FILE*)> log(std::fopen(log_path.c_str(), "w"), std::fclose);
  if (!log) {
    std::perror(log_path.c_str());
    return 2;
  }
  catch_signals();
  Session session(options, log.get());
  if (session.wait_for_device()) {
    print_table_head();
    for (const PlannedStream& planned : planned_streams(options)) {
      if (session.going_on()) session.stream(planned);
    }
  }
  session.end_service();
  session.print_counts();
  if (interrupted && !options.stay) return 130;
  return session.good() ? 0 : 1;
}

}  // namespace
}  // namespace sim

int main(int argc, char** argv) {
  int exit_status;
  const auto options = sim::parse_options(argc, argv, exit_status);
  return options ? sim::run(*options) : exit_status;
}
