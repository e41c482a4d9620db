#include "sim/app/stream_plan.h"

#include <algorithm>
#include <iterator>
#include <vector>

#include "sim/app/options.h"
#include "sim/app/report.h"

namespace sim {

namespace {

using namespace std::chrono_literals;
using Clock = Session::Clock;

constexpr auto kCableLimit = 15s;
constexpr double kUnplugged = 0.5;  // seconds that the planned unplug lasts

struct PlannedStream {
  StreamFormat format;
  FrameSize size;
  bool unplug = false;  // in its middle; it is then started again
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

std::vector<PlannedStream> planned_streams(const Options& options) {
  if (!options.one_stream()) return {std::begin(kPlan), std::end(kPlan)};
  const StreamFormat format = options.format.value_or(StreamFormat::kMjpeg);
  const auto planned = std::ranges::find(kPlan, format, &PlannedStream::format);
  return {{format, options.size.value_or(planned->size)}};
}

// Runs one stream until its time is over or the cable is pulled.
ReportRow stream_once(Session& session, const std::string& name, const StreamChoice& choice, unsigned unplugs,
                      std::ostream* copy) {
  UsbHost& host = session.camera().host;
  const Options& options = session.options();
  ReportRow row{name, choice.rate, {}, {}};
  if (host.start(choice, copy)) {
    const auto length = options.stay ? 24h : std::chrono::duration<double>(options.duration);
    const auto end = Clock::now() + std::chrono::duration_cast<Clock::duration>(length);
    const auto over = [&] { return host.unplugs() != unplugs || Clock::now() >= end; };
    while (session.going_on() && !over() && row.result.copied) {
      session.wait(200ms, over);
      row.result = host.progress();
      print_progress(row);
    }
    if (!session.service().running()) host.unplug();  // as the driver does then
    row.result = host.stop(session.picture_path(name));
  }
  row.error = session.service().running() ? host.error() : "the service has ended";
  return row;
}

bool wait_for_cable(Session& session) {
  UsbHost& host = session.camera().host;
  if (!session.wait(kCableLimit, [&] { return host.plugged(); })) {
    if (session.going_on()) session.complain("the cable was not plugged in again");
    return false;
  }
  if (host.enumerate()) return true;
  session.complain("after the replug: " + host.error());
  return false;
}

// Streams once, and again after every unplug.
void stream(Session& session, const PlannedStream& planned, std::ostream* copy) {
  UsbHost& host = session.camera().host;
  const Options& options = session.options();
  const StreamChoice choice{planned.format, planned.size, options.rate};
  if (planned.unplug) {
    session.timeline().in(options.duration / 2, [&host] { host.unplug(); });
    session.timeline().in(options.duration / 2 + kUnplugged, [&host] { host.replug(); });
  }
  for (std::string name = name_of(choice);; name = "replug " + name_of(choice)) {
    const unsigned unplugs = host.unplugs();
    const ReportRow row = stream_once(session, name, choice, unplugs, copy);
    print_row(row);
    session.keep(finding_of(row));
    if (host.unplugs() == unplugs || !wait_for_cable(session)) return;
  }
}

}  // namespace

void stream_plan(Session& session, std::ostream* copy) {
  print_table_head();
  for (const PlannedStream& planned : planned_streams(session.options())) {
    if (session.going_on()) stream(session, planned, copy);
  }
}

}  // namespace sim
