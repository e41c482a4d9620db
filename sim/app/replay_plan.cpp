#include "sim/app/replay_plan.h"

#include <algorithm>
#include <cstdio>
#include <thread>

#include "sim/app/options.h"
#include "sim/host/usb_pcap.h"

namespace sim {

namespace {

constexpr double kLongestPauseMs = 1000;

bool same_answer(const Exchange& a, const Exchange& b) {
  const bool reads = a.setup.bRequestType & USB_DIR_IN;
  return a.stalled == b.stalled && a.timed_out == b.timed_out && (!reads || a.data == b.data);
}

Exchange repeat(Conversation& conversation, const Exchange& recorded) {
  const bool reads = recorded.setup.bRequestType & USB_DIR_IN;
  conversation.control(recorded.setup, reads ? std::span<const u8>() : recorded.data);
  return conversation.exchanges().back();
}

void pause_between(const Exchange& before, const Exchange& next) {
  const double pause = std::clamp(next.at_ms - before.at_ms - before.answer_ms, 0.0, kLongestPauseMs);
  std::this_thread::sleep_for(std::chrono::duration<double, std::milli>(pause));
}

}  // namespace

void replay_plan(Session& session) {
  std::string error;
  const auto recorded = read_recording(session.options().replay, error);
  if (!recorded) return session.complain("no replay: " + error);
  std::size_t same = 0, sent = 0;
  for (; sent < recorded->size() && session.going_on(); ++sent) {
    const Exchange& wanted = (*recorded)[sent];
    if (sent > 0) pause_between((*recorded)[sent - 1], wanted);
    const Exchange got = repeat(session.camera().conversation, wanted);
    const bool good = same_answer(wanted, got);
    same += good;
    if (!good) std::printf("recorded  %s\nnow       %s\n", describe(wanted).c_str(), describe(got).c_str());
    session.keep({.group = "replay",
                  .name = "request " + std::to_string(sent + 1),
                  .good = good,
                  .verdict = describe(got),
                  .seconds = got.answer_ms / 1000});
  }
  std::printf("replay: %zu of %zu requests, %zu answered as recorded\n", sent, recorded->size(), same);
  if (recorded->empty()) session.complain("the capture has no class requests to a camera");
}

}  // namespace sim
