#include "sim/app/storm_life.h"

#include <sys/msg.h>

#include <algorithm>
#include <cerrno>
#include <cmath>
#include <filesystem>
#include <future>
#include <utility>

#include "ipc/msg_records.h"
#include "sim/app/fault_script.h"
#include "sim/seam/files.h"
#include "sim/seam/milliseconds.h"

namespace sim {

namespace {

using namespace std::chrono_literals;
using Clock = std::chrono::steady_clock;
using std::chrono::milliseconds;

constexpr double kLongestAnswerMs = 4700;    //< of the 5000 for which the host waits
constexpr double kLongestStopMs = 2000;      //< of the service by a signal
constexpr double kControlsBack = 5;          //< seconds from the storm's end until every control obeys
constexpr auto kPictureBack = 3s;            //< from the last fault's end to the next picture
constexpr unsigned long kPicturesMade = 45;  //< that long at 15 frames a second
constexpr auto kEncoderPatience = 30s;
constexpr long kFormerSegments = 1;      //< stays attached when the server makes its parameters anew
constexpr long kMostOwnKilobytes = 512;  //< that the service may have more than before

milliseconds as_milliseconds(double seconds) { return milliseconds(std::lround(seconds * 1000)); }

// Whether a message waits for the service.
bool message_waits(i32 key, i32 process) {
  const int queue = msgget(run_key(key), 0);
  long nothing_but_type;
  return queue >= 0 && msgrcv(queue, &nothing_but_type, 0, process, IPC_NOWAIT) < 0 && errno == E2BIG;
}

double longest_answer_ms(const StormRound& round) {
  return kLongestAnswerMs + (round.has(kServiceStopped) ? kLongestStopMs : 0);
}

}  // namespace

// What carries a round's faults out; the service's own in another thread, so that a stopped service goes on
// whatever the other faults wait for.
struct StormLives::Weather {
  std::promise<void> over, signals_over;
  Timeline faults, signals;
};

StormLives::StormLives(std::string program, StormTally& tally)
    : program_(std::move(program)), tally_(tally) {}

bool StormLives::wait(milliseconds limit, const std::function<bool()>& condition) {
  const auto begin = Clock::now();
  while (!condition()) {
    if (!service_->running() || Clock::now() - begin > limit) return false;
    std::this_thread::sleep_for(2ms);
  }
  return true;
}

bool StormLives::live(const StormLife& life, u32 seed, const std::string& name, bool quiet) {
  StormLog log(tally_, name, quiet);
  log_ = &log;
  ++tally_.lives;
  const double late_ms = metronome_.late_ms();
  std::filesystem::remove(camera_.run.path(kShellLog));
  log.step(std::string("starts, its output ") + name_of(life.output));
  std::vector<std::string> command{program_};
  if (life.waits_in_kernel) command.emplace_back("--wait-in-kernel");
  service_.emplace(std::move(command), output_.get(), false, life.output);
  if (!life.rounds.empty()) be_stormy(life, seed);
  if (!service_->running()) {
    log.fail("the service ended early: " + service_->how_it_ended());
  } else {
    enter(life.end);
    end(life.end);
  }
  tally_.machine.note(metronome_.late_ms() - late_ms);
  if (log.failures()) log.step("the service's last lines:\n" + service_->last_lines());
  clear_up();
  service_.reset();
  return log.failures() == 0;
}

// The device on the bus, plugged in.
bool StormLives::appear() {
  if (!wait(20s, [&] { return camera_.node.wait_for_device(0ms); })) {
    log_->fail("the device did not appear");
    return false;
  }
  camera_.node.wait_for_device(100ms);
  camera_.host.replug();
  if (camera_.host.enumerate()) return true;
  log_->fail("the device is not as it should be: " + camera_.host.error());
  return false;
}

void StormLives::be_stormy(const StormLife& life, u32 seed) {
  if (!appear()) return;
  controls_ = std::make_unique<StormControls>(camera_, metronome_, tally_, *log_, seed);
  belongings_.reset();
  expect_order({});
  for (const StormRound& each : life.rounds)
    if (service_->running()) round(each);
  controls_.reset();
}

void StormLives::round(const StormRound& round) {
  ++tally_.rounds;
  const double late_ms = metronome_.late_ms();
  log_->step("streams " + name_of(round.choice));
  if (!start(round.choice)) log_->fail("no stream: " + camera_.host.error());
  expect_picture(true);
  set_rules(round);
  controls_->go_on();
  const unsigned unplugs = camera_.host.unplugs();
  pass(round);
  const bool asked_in_vain = round.then && round.any(kLoses);
  const bool damaged = round.any(kDamages);  // key frames are rare
  const bool again = !streams_ || asked_in_vain || damaged || camera_.host.unplugs() != unplugs;
  log_->step(again ? "the storm is over, the host starts its stream again" : "the storm is over");
  if (again) {
    stop(round);
    if (!start(round.choice)) log_->fail("no stream: " + camera_.host.error());
  }
  expect_picture(again);
  controls_->pause();
  stop(round);
  const double slowest_ms = camera_.conversation.take_slowest_ms();
  if (slowest_ms > longest_answer_ms(round) + metronome_.late_ms() - late_ms)
    log_->fail("a probe or commit was answered after " + std::to_string(slowest_ms) + " ms");
  expect_order(round);
}

void StormLives::set_rules(const StormRound& round) {
  const bool server = std::ranges::any_of(round.steps, [](const StormStep& step) {
    return storm_faults()[step.fault].party == StormParty::kServer;
  });
  controls_->set_rules(
      {.longest_ms = longest_answer_ms(round), .in_range = !round.any(kConfuses), .exact = !server});
}

// From the round's first fault to the end of its last.
void StormLives::pass(const StormRound& round) {
  Weather weather;
  const auto begin = Clock::now();
  for (const StormStep& step : round.steps) schedule(step, weather);
  weather.faults.in(round.end(), [&weather] { weather.over.set_value(); });
  weather.signals.in(round.end(), [&weather] { weather.signals_over.set_value(); });
  if (round.then) {
    std::this_thread::sleep_until(begin + as_milliseconds(round.then_at));
    log_->step("goes over to " + name_of(*round.then));
    stop(round);
    if (camera_.host.plugged()) start(*round.then);
  }
  weather.over.get_future().wait();
  weather.signals_over.get_future().wait();
}

void StormLives::schedule(const StormStep& step, Weather& weather) {
  const StormFault& fault = storm_faults()[step.fault];
  ++tally_.faults[step.fault];
  const bool signals = fault.party == StormParty::kService;
  Timeline& timeline = signals ? weather.signals : weather.faults;
  timeline.in(step.at, [this, &step] { log_->step(step.text()); });
  if (fault.text == std::string_view(kServiceReloads)) {
    timeline.in(step.at, [this, &step] { reload(step.duration); });
  } else if (signals) {
    timeline.in(step.at, [this] { kill(service_->pid(), SIGSTOP); });
    timeline.in(step.at + step.duration, [this] { kill(service_->pid(), SIGCONT); });
  } else {
    std::string error;
    const Fault parsed = parse_fault("at 1s " + step.text(), error).value();
    timeline.in(step.at, [this, parsed] { set_fault(camera_, parsed, true); });
    timeline.in(step.at + step.duration, [this, parsed] { set_fault(camera_, parsed, false); });
  }
}

void StormLives::reload(double seconds) {
  const auto end = Clock::now() + as_milliseconds(seconds);
  for (; Clock::now() < end; std::this_thread::sleep_for(1ms)) kill(service_->pid(), SIGUSR1);
}

bool StormLives::start(const StreamChoice& choice) {
  ++tally_.streams[static_cast<u32>(choice.format) - 1];
  return streams_ = camera_.host.start(choice);
}

void StormLives::stop(const StormRound& round) {
  const StreamReport report = camera_.host.stop("").report;
  streams_ = false;
  if (round.any(kDamages) || report.torn + report.stale + report.repeated == 0) return;
  log_->fail("frames: torn " + std::to_string(report.torn) + ", stale " + std::to_string(report.stale) +
             ", repeated " + std::to_string(report.repeated));
}

// The next whole picture, in time since the stream's start or since now. A busy machine's encoder gets the
// time that it needs for as many pictures.
void StormLives::expect_picture(bool from_start) {
  const auto begin = Clock::now();
  const auto made = [this] { return camera_.parties.media.counts().pictures; };
  const unsigned long made_before = made();
  const unsigned long before = from_start ? 0 : camera_.host.progress().report.frames;
  const auto came = [&] { return camera_.host.progress().report.frames > before; };
  const auto over = [&] {
    return Clock::now() - begin > kPictureBack && made() > made_before + kPicturesMade;
  };
  wait(kEncoderPatience, [&] { return came() || over(); });
  if (!came()) return log_->fail("no picture within 3 s");
  tally_.picture.note(from_start ? camera_.host.progress().first_picture_ms : milliseconds_since(begin));
}

// Calm: every control obeys, everything arrived, and the service has what it had before.
void StormLives::expect_order(const StormRound& round) {
  set_rules({});
  const auto seconds = controls_->come_back(kControlsBack);
  if (!seconds) log_->fail("the controls do not obey after 5 s");
  tally_.controls.note(1000 * seconds.value_or(0));
  controls_->judge_settings(round.any(kLoses));
  const std::pair<i32, i32> queues[] = {
      {kSysMsgKey, kSysMsgProcess}, {kFileMsgKey, kFileMsgProcess}, {kVeltoMsgKey, kVeltoProcess}};
  for (const auto& [key, process] : queues)
    if (message_waits(key, process)) log_->fail("a message is left for process " + std::to_string(process));
  expect_belongings();
}

// The streaming loop may need a moment to put down what it holds.
void StormLives::expect_belongings() {
  Belongings now = belongings_of(service_->pid());
  if (!belongings_) {  // not while it looks for a semaphore, and has its file open for a moment
    wait(kPictureBack, [&] {
      const long files = std::exchange(now, belongings_of(service_->pid())).files;
      return now.files == files;
    });
    belongings_ = now;
  }
  Belongings& before = *belongings_;
  const bool no_more = wait(kPictureBack, [&] {
    now = belongings_of(service_->pid());
    return now.files <= before.files && now.threads == before.threads && now.mappings >= before.mappings &&
           now.mappings <= before.mappings + kFormerSegments &&
           now.own_kilobytes <= before.own_kilobytes + kMostOwnKilobytes;
  });
  if (!no_more) return log_->fail("the service has " + now.text() + "; before: " + before.text());
  before.files = now.files;  // a busy machine may have shown that file for longer
}

}  // namespace sim
