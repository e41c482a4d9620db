#include "sim/app/session.h"

#include <algorithm>
#include <cctype>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <vector>

#include "sim/app/fault_script.h"
#include "sim/app/options.h"
#include "sim/host/usb_pcap.h"

namespace sim {

namespace {

using namespace std::chrono_literals;

constexpr double kServiceEnd = 1;       // seconds from SIGTERM to the service's end
constexpr double kServicePatience = 5;  // seconds until it is killed
constexpr auto kDeviceLimit = 15s;      // from the service's start to the device on the bus, on an idle PC

std::vector<std::string> service_command(const Options& options) {
  const auto beside = std::filesystem::read_symlink("/proc/self/exe").replace_filename("uvc_gadget_sim");
  std::vector<std::string> command{options.service.empty() ? beside.string() : options.service};
  if (options.wait_in_kernel) command.emplace_back("--wait-in-kernel");
  return command;
}

void write_lines(const std::string& path, const std::vector<std::string>& lines) {
  std::ofstream file(path);
  for (const std::string& line : lines) file << line << '\n';
}

}  // namespace

volatile sig_atomic_t interrupted = 0;

int patience() {
  double load = 0;
  if (getloadavg(&load, 1) != 1) return 1;
  return 1 + static_cast<int>(load / std::max(1u, std::thread::hardware_concurrency()));
}

void catch_signals() {
  struct sigaction action = {};
  action.sa_handler = [](int number) { interrupted = number; };
  for (const int number : {SIGINT, SIGTERM, SIGHUP}) sigaction(number, &action, nullptr);
  signal(SIGPIPE, SIG_IGN);  // a closed standard output must not keep the cleanup from running
}

Session::Session(const Options& options, Camera& camera, std::FILE* service_log)
    : options_(options), camera_(camera), service_log_(service_log) {
  service_.emplace(service_command(options), service_log, options.verbose);
  for (const Fault& fault : options.faults) schedule(fault);
}

void Session::schedule(const Fault& fault) {
  if (fault.at > 0) timeline_.in(fault.at, [this, fault] { set_fault(camera_, fault, true); });
  if (!fault.duration) return;
  timeline_.in(fault.at + *fault.duration, [this, fault] { set_fault(camera_, fault, false); });
}

std::string Session::picture_path(std::string name) const {
  std::ranges::replace(name, ' ', '-');
  std::ranges::transform(name, name.begin(), [](unsigned char c) { return std::tolower(c); });
  return options_.out + '/' + name + ".png";
}

void Session::complain(const std::string& what) {
  std::printf("%s\n", what.c_str());
  keep({.group = "run", .name = "trouble", .good = false, .verdict = what});
}

bool Session::wait_for_device() {
  const auto begin = Clock::now();
  if (!wait(kDeviceLimit * patience(), [&] { return camera_.node.wait_for_device(0ms); })) {
    if (going_on()) complain("the device did not appear");
    return false;
  }
  std::printf("service %d, device after %.2f s, files under %s\n", service_->pid(),
              std::chrono::duration<double>(Clock::now() - begin).count(), run_root().c_str());
  if (options_.stay)
    std::printf("attach a debugger with: gdb -p %d; Ctrl-C ends everything\n", service_->pid());
  if (plug_in()) return true;
  complain("the device is not as expected: " + camera_.host.error());
  return false;
}

void Session::stop_service(int signal) {
  stopped_ = true;
  const auto seconds = service_->stop(kServicePatience, signal);
  camera_.host.unplug();  // as the driver does then
  if (!seconds) return complain("the service did not end within 5 s of SIGTERM and was killed");
  std::printf("service: %s, %.3f s after %s\n", service_->how_it_ended().c_str(), *seconds,
              signal == SIGTERM ? "SIGTERM" : "SIGKILL");
  if (signal != SIGTERM) return;
  keep({.group = "run",
        .name = "service ends",
        .good = service_->ended_with_success() && *seconds <= kServiceEnd,
        .verdict = service_->how_it_ended(),
        .seconds = *seconds});
}

bool Session::start_service() {
  stopped_ = false;
  service_.emplace(service_command(options_), service_log_, options_.verbose);
  return wait_for_device();
}

bool Session::plug_in() {
  camera_.host.replug();
  const bool another_enumerates = options_.attach || !options_.replay.empty();
  return another_enumerates || camera_.host.enumerate();
}

void Session::end_service() {
  if (service_->running()) return stop_service();
  if (stopped_) return;
  complain("the service ended early: " + service_->how_it_ended() + "; its last lines:\n" +
           service_->last_lines());
}

void Session::print_counts() {
  const Parties& parties = camera_.parties;
  if (parties.collector) {
    const Collector::Counts log = parties.collector->counts();
    std::printf("log: %lu lines, %lu malformed, %lu dropped by the service\n", log.lines, log.malformed,
                service_->dropped_log_lines());
  }
  if (parties.server) {
    std::printf("server: %zu requests, %lu refused\n", parties.server->received().size(),
                parties.server->refused());
  }
  const Media::Counts media = parties.media.counts();
  std::printf("media: %lu pictures, %lu encoded, %lu dropped\n", media.pictures, media.encoded,
              media.dropped);
  const auto exchanges = camera_.conversation.exchanges();
  std::vector<std::string> lines;
  std::ranges::transform(exchanges, std::back_inserter(lines), describe);
  write_lines(options_.out + "/conversation.log", lines);
  if (!write_pcap(options_.out + "/conversation.pcap", exchanges)) complain("the capture is not complete");
  write_lines(options_.out + "/node.log", {camera_.node.call_log()});
  for (const std::string& error : camera_.node.protocol_errors()) complain("gadget driver: " + error);
}

}  // namespace sim
