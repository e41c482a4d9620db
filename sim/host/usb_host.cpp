#include "sim/host/usb_host.h"

#include <linux/usb/video.h>

#include <algorithm>
#include <array>
#include <condition_variable>
#include <cstring>
#include <deque>
#include <mutex>
#include <thread>
#include <utility>

#include "sim/host/host_controls.h"
#include "sim/host/png.h"
#include "sim/seam/milliseconds.h"
#include "sim/seam/wait_on.h"

namespace sim {

namespace {

using Clock = std::chrono::steady_clock;
using namespace std::chrono_literals;

constexpr HostFormat kFormats[] = {
    {StreamFormat::kMjpeg, "MJPEG", kMjpegSizes},
    {StreamFormat::kH264, "H264", kH264Sizes},
    {StreamFormat::kYuy2, "YUY2", kYuy2Sizes},
    {StreamFormat::kH265, "H265", kH265Sizes},
};

// Where the probe block's fields lie.
enum ProbeField {
  kHint = 0,
  kFormatIndex = 2,
  kFrameIndex = 3,
  kInterval = 4,
  kQuality = 12,
  kMaxFrame = 18
};
using ProbeBlock = std::array<u8, 26>;
constexpr u16 kKeepInterval = 1;             //< hint: the frame interval is to stay
constexpr u32 kUnitsPerSecond = 10'000'000;  //< frame intervals count 100 ns

constexpr std::size_t kMostWaiting = 240;  //< frames that may wait for their check before taking waits

ProbeBlock probe_block(const StreamChoice& choice) {
  const auto sizes = host_format(choice.format).sizes;
  const auto frame = std::ranges::find(sizes, choice.size) - sizes.begin();
  ProbeBlock block{};
  put_le16(&block[kHint], kKeepInterval);
  block[kFormatIndex] = static_cast<u8>(choice.format);
  block[kFrameIndex] = static_cast<u8>(frame + 1);
  put_le32(&block[kInterval], kUnitsPerSecond / choice.rate);
  return block;
}

}  // namespace

std::span<const HostFormat> host_formats() { return kFormats; }

const HostFormat& host_format(StreamFormat format) {
  return *std::ranges::find(kFormats, format, &HostFormat::format);
}

std::string name_of(const StreamChoice& choice) {
  return host_format(choice.format).name + (' ' + std::to_string(choice.size.width)) + 'x' +
         std::to_string(choice.size.height);
}

std::optional<StreamChoice> choice_in(std::span<const u8> block) {
  if (block.size() < ProbeBlock().size()) return {};
  const u32 format = block[kFormatIndex] - 1u, frame = block[kFrameIndex] - 1u;
  const u32 interval = get_le32(&block[kInterval]);
  if (format >= std::size(kFormats) || frame >= kFormats[format].sizes.size() || interval == 0) return {};
  return StreamChoice{kFormats[format].format, kFormats[format].sizes[frame], kUnitsPerSecond / interval};
}

// A running stream: one thread takes frames, another checks them, so that decoding never holds up the bus.
class UsbHost::Stream {
 public:
  Stream(const UsbHost& host, const StreamChoice& choice, Clock::time_point begin, std::ostream* copy)
      : node_(host.node_),
        rests_(host.rests_),
        paced_(host.paced_),
        on_frame_(host.on_frame_),
        choice_(choice),
        begin_(begin),
        copy_(copy),
        checker_(choice.format, choice.size.width, choice.size.height),
        taker_([this] { take(); }),
        check_thread_([this] { check(); }) {}
  ~Stream() { finish(); }

  void finish();
  StreamResult result() const;
  // The last whole picture once it was made after `time`, CLOCK_MONOTONIC in nanoseconds; else null.
  AvPtr<AVFrame> picture_after(i64 time, std::chrono::milliseconds limit);

 private:
  struct Frame {
    std::vector<u8> data;
    Clock::time_point arrived;
  };

  void take();
  void check();
  bool put(Frame frame);
  bool next(Frame& frame);

  NodeHost& node_;
  const std::atomic<bool>& rests_;
  const bool paced_;
  const std::function<void(const ReceivedFrame&)>& on_frame_;
  const StreamChoice choice_;
  const Clock::time_point begin_;
  std::ostream* const copy_;
  FrameChecker checker_;
  mutable std::mutex lock_;
  std::condition_variable changed_;
  std::deque<Frame> waiting_;
  AvPtr<AVFrame> picture_;  //< the last whole one
  bool stopping_ = false;
  StreamResult result_;
  Clock::time_point first_, end_;
  std::thread taker_, check_thread_;
};

void UsbHost::Stream::take() {
  Clock::time_point bus_free = Clock::now();
  for (Frame frame;;) {
    if (rests_ || !node_.take_frame(frame.data, 50ms)) {
      frame.data.clear();
      std::this_thread::sleep_for(1ms);  // it fails at once while the stream is off
    } else if (paced_) {
      bus_free = std::max(bus_free, Clock::now()) + bus_time(frame.data.size());
      std::this_thread::sleep_until(bus_free);
    }
    frame.arrived = Clock::now();
    if (!put(std::exchange(frame, {}))) return;
  }
}

// False when the stream is to end.
bool UsbHost::Stream::put(Frame frame) {
  std::unique_lock guard(lock_);
  changed_.wait(guard, [&] { return stopping_ || waiting_.size() < kMostWaiting; });
  if (!frame.data.empty()) waiting_.push_back(std::move(frame));
  changed_.notify_all();
  return !stopping_;
}

// False once the stream has ended and every frame was checked.
bool UsbHost::Stream::next(Frame& frame) {
  std::unique_lock guard(lock_);
  changed_.wait(guard, [&] { return stopping_ || !waiting_.empty(); });
  if (waiting_.empty()) return false;
  frame = std::move(waiting_.front());
  waiting_.pop_front();
  changed_.notify_all();
  return true;
}

void UsbHost::Stream::check() {
  for (Frame frame; next(frame);) {
    if (copy_ && frame.data.size() > kEmptyPayload) {
      copy_->write(reinterpret_cast<const char*>(frame.data.data()), std::ssize(frame.data));
    }
    const i64 arrived = std::chrono::nanoseconds(frame.arrived.time_since_epoch()).count();
    const auto frames_before = checker_.report().frames;
    checker_.feed(frame.data, arrived);
    const bool is_new = checker_.report().frames > frames_before;
    if (frame.data.size() > kEmptyPayload)
      on_frame_({choice_, frame.data, arrived, is_new ? checker_.picture() : nullptr});
    std::lock_guard guard(lock_);
    result_.copied = !copy_ || copy_->good();
    result_.report = checker_.report();
    ++result_.payloads;
    picture_.reset(checker_.picture() ? av_frame_clone(checker_.picture()) : nullptr);
    changed_.notify_all();
    if (result_.report.frames == 0 || result_.first_picture_ms >= 0) continue;
    first_ = frame.arrived;
    result_.first_picture_ms = in_milliseconds(first_ - begin_);
  }
}

void UsbHost::Stream::finish() {
  {
    std::lock_guard guard(lock_);
    if (stopping_) return;
    stopping_ = true;
    end_ = Clock::now();
  }
  changed_.notify_all();
  taker_.join();
  check_thread_.join();
}

StreamResult UsbHost::Stream::result() const {
  std::lock_guard guard(lock_);
  StreamResult result = result_;
  const auto end = stopping_ ? end_ : Clock::now();
  if (result.first_picture_ms >= 0) result.seconds = in_milliseconds(end - first_) / 1000;
  return result;
}

AvPtr<AVFrame> UsbHost::Stream::picture_after(i64 time, std::chrono::milliseconds limit) {
  std::unique_lock guard(lock_);
  const bool came = changed_.wait_for(guard, limit, [&] { return picture_ && picture_->pts > time; });
  return AvPtr<AVFrame>(came ? av_frame_clone(picture_.get()) : nullptr);
}

UsbHost::UsbHost(NodeHost& node, Conversation& conversation, bool paced)
    : node_(node), conversation_(conversation), paced_(paced) {}
UsbHost::~UsbHost() = default;

bool UsbHost::fail(std::string what) {
  error_ = std::move(what);
  return false;
}

bool UsbHost::set(u8 selector, std::span<const u8> block) {
  const auto setup = class_request(UVC_SET_CUR, kVideoStreamingInterface, 0, selector, block.size());
  if (!conversation_.control(setup, block).stalled) return true;
  return fail(selector == UVC_VS_PROBE_CONTROL ? "SET_CUR of probe stalled" : "SET_CUR of commit stalled");
}

bool UsbHost::get(u8 request, std::span<u8> answer) {
  const auto setup = class_request(request, kVideoStreamingInterface, 0, UVC_VS_PROBE_CONTROL, answer.size());
  const ControlAnswer came = conversation_.control(setup);
  const std::string name = std::string(request_name(request)) + " of probe";
  if (came.stalled) return fail(name + " stalled");
  if (came.data.size() != answer.size())
    return fail(name + ": " + std::to_string(came.data.size()) + " bytes");
  std::ranges::copy(came.data, answer.begin());
  return true;
}

bool UsbHost::enumerate() {
  error_.clear();
  std::array<u8, 2> length;
  std::array<u8, 1> info;
  ProbeBlock block;
  if (!get(UVC_GET_LEN, length) || !get(UVC_GET_INFO, info) || !get(UVC_GET_DEF, block)) return false;
  if (get_le16(length.data()) != block.size()) return fail("GET_LEN of probe is not 26");
  if (info[0] != 3) return fail("GET_INFO of probe is not 3");
  return set(UVC_VS_PROBE_CONTROL, block) && get(UVC_GET_CUR, block);
}

bool UsbHost::negotiate(const StreamChoice& choice) {
  const ProbeBlock wanted = probe_block(choice);
  ProbeBlock least, most, granted;
  if (!set(UVC_VS_PROBE_CONTROL, wanted) || !get(UVC_GET_MIN, least) || !get(UVC_GET_MAX, most)) return false;
  ProbeBlock second = wanted;
  std::copy_n(&most[kQuality], 2, &second[kQuality]);
  if (!set(UVC_VS_PROBE_CONTROL, second) || !get(UVC_GET_CUR, granted)) return false;
  if (!std::equal(&wanted[kFormatIndex], &wanted[kInterval] + 4, &granted[kFormatIndex])) {
    return fail("another format, frame size or interval was granted");
  }
  if (get_le32(&granted[kMaxFrame]) == 0) return fail("the frame size is not known to the camera");
  return set(UVC_VS_COMMIT_CONTROL, granted);
}

bool UsbHost::start(const StreamChoice& choice, std::ostream* copy) {
  error_.clear();
  if (!negotiate(choice)) return false;
  on_stream_(&choice);
  const auto begin = Clock::now();
  if (!node_.stream_on()) return fail("no VIDIOC_STREAMON after SET_INTERFACE 1");
  const std::lock_guard guard(stream_lock_);
  stream_ = std::make_shared<Stream>(*this, choice, begin, copy);
  return true;
}

std::shared_ptr<UsbHost::Stream> UsbHost::stream() const {
  const std::lock_guard guard(stream_lock_);
  return stream_;
}

StreamResult UsbHost::progress() const {
  const auto running = stream();
  return running ? running->result() : StreamResult{};
}

std::optional<MeasuredPicture> UsbHost::picture(const std::string& png_path,
                                                std::chrono::milliseconds limit) {
  const auto running = stream();
  const auto picture = running ? running->picture_after(monotonic_ns(), limit) : nullptr;
  if (!picture || !write_png(*picture, png_path)) return std::nullopt;
  return measure(*picture);
}

StreamResult UsbHost::stop(const std::string& png_path) {
  if (!stream_) return {};
  error_.clear();
  stream_->finish();
  on_stream_(nullptr);
  if (plugged_ && !node_.stream_off()) fail("no VIDIOC_STREAMOFF after SET_INTERFACE 0");
  const StreamResult result = stream_->result();
  if (const auto picture = stream_->picture_after(-1, 0ms)) write_png(*picture, png_path);
  const std::lock_guard guard(stream_lock_);
  stream_.reset();
  return result;
}

void UsbHost::unplug() {
  plugged_ = false;
  ++unplugs_;
  on_cable_(false);
}

void UsbHost::replug() {
  on_cable_(true);
  plugged_ = true;
}

}  // namespace sim
