#include "sim/media/media.h"

#include <algorithm>
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <mutex>
#include <thread>
#include <utility>

#include "sim/media/encoder.h"
#include "sim/media/encoder_fault.h"
#include "sim/media/frame_counter.h"
#include "sim/media/lent_encoder.h"
#include "sim/media/made_frames.h"
#include "sim/media/ring_watcher.h"
#include "sim/media/ring_writer.h"
#include "sim/media/scene.h"
#include "sim/media/vpss_model.h"
#include "sim/seam/wait_on.h"

namespace sim {

namespace {

using Clock = std::chrono::steady_clock;

std::atomic<u32> last_counter{0};

constexpr std::chrono::milliseconds kPostInterval{1};
constexpr i32 kSensorRate = 30;  // pictures per second if none are requested

// Limits the sizes to what the scene and the encoders can do. The sizes of the size tables pass unchanged.
EncoderSettings possible(EncoderSettings settings, EncoderFault fault) {
  const int divisor = fault == EncoderFault::kWrongSize ? 2 : 1;
  const auto size = [=](i32 pixels) {
    return std::clamp(pixels / divisor, static_cast<i32>(kNarrowestPicture), 4096) & ~1;
  };
  settings.width = size(settings.width);
  settings.height = size(settings.height);
  settings.frame_rate = settings.frame_rate <= 0 ? kSensorRate : std::min(settings.frame_rate, 60);
  if (settings.codec < kCodecH264 || settings.codec > kCodecYuy2) settings.frame_rate = 0;
  return settings;
}

bool same_stream(const EncoderSettingsMessage& a, const EncoderSettingsMessage& b) {
  return b.running != 0 && a.settings.width == b.settings.width && a.settings.height == b.settings.height &&
         a.settings.codec == b.settings.codec;
}

}  // namespace

struct Media::Impl {
  explicit Impl(const MediaOptions& media_options);
  ~Impl();

  void end_thread();
  void leave();
  void come();
  void run();
  bool wait_for_tick(EncoderSettings& settings);
  void take_over_changes();
  void end_stream();
  void make_picture(const EncoderSettings& settings);
  void encode(const EncoderSettings& settings, EncFrameSlot& slot);
  AVFrame& next_scene(const EncoderSettings& settings);

  const MediaOptions options;
  std::mutex mutex;

  // Guarded by the mutex.
  std::condition_variable changed;
  EncoderSettingsMessage wanted{};
  EncoderFault fault = EncoderFault::kNone;
  std::chrono::milliseconds slowness{0};
  bool new_stream = false;
  bool quit = false;
  unsigned long former_drops = 0;  // of rings that were removed

  std::optional<RingWriter> ring;      // used by the media thread, emptied by any thread
  std::optional<RingWatcher> watcher;  // of the user's own encoder, in place of the ring's writer
  VpssModel vpss;                      // the same

  // Used by the media thread only.
  Encoder encoder;
  std::optional<LentEncoder> lent_encoder;
  std::optional<Scene> scene;
  Clock::time_point next_tick = Clock::now();
  bool key_frame = true;
  bool dead = false;

  std::atomic<unsigned long> pictures{0}, encoded{0}, dropped{0};
  std::thread thread;
};

Media::Impl::Impl(const MediaOptions& media_options)
    : options(media_options), vpss(options.yuv422, options.extra_stride) {
  options.encodes ? (void)ring.emplace() : (void)watcher.emplace();
  if (!options.lent_encoder.empty()) lent_encoder.emplace(options.lent_encoder);
  thread = std::thread([this] { run(); });
}

Media::Impl::~Impl() {
  end_thread();
  if (ring) ring->clear();
}

void Media::Impl::end_thread() {
  {
    const std::lock_guard lock(mutex);
    quit = true;
  }
  changed.notify_one();
  if (thread.joinable()) thread.join();
}

// Plays the end of the process, and its next start: it has to receive the settings again then.
void Media::Impl::leave() {
  end_thread();
  const std::lock_guard lock(mutex);
  former_drops += ring->dropped();
  ring.reset();
  RingWriter::remove();
  vpss.set_alive(false);
}

void Media::Impl::come() {
  const std::lock_guard lock(mutex);
  ring.emplace();
  vpss.set_alive(true);
  quit = false;
  new_stream = true;
  thread = std::thread([this] { run(); });
}

void Media::Impl::run() {
  for (EncoderSettings settings; wait_for_tick(settings);) make_picture(settings);
}

void Media::Impl::take_over_changes() {
  if (std::exchange(new_stream, false)) key_frame = true;
  if (fault == EncoderFault::kDead && !dead) ring->acquire();
  dead = fault == EncoderFault::kDead;
}

// No frame of the former stream may open the next one, not even one that is being made now. Called with
// the lock held.
void Media::Impl::end_stream() {
  new_stream = true;
  if (ring) ring->clear();
  vpss.clear();
}

// Waits until the next picture is due. Returns false if the process ends.
bool Media::Impl::wait_for_tick(EncoderSettings& settings) {
  std::unique_lock lock(mutex);
  while (!quit) {
    take_over_changes();
    settings = possible(wanted.settings, fault);
    const bool posts = fault == EncoderFault::kPosts;
    const bool silent = posts || fault == EncoderFault::kSilent || fault == EncoderFault::kDead;
    if (wanted.running == 0 || settings.frame_rate == 0 || silent) {
      if (posts) ring->post_nothing();
      posts ? (void)changed.wait_for(lock, kPostInterval) : changed.wait(lock);
      next_tick = Clock::now();
      continue;
    }
    const auto interval = std::chrono::nanoseconds(1'000'000'000 / settings.frame_rate);
    if (Clock::now() >= next_tick) {
      next_tick = std::max(next_tick + interval, Clock::now());
      return true;
    }
    changed.wait_until(lock, next_tick);
  }
  return false;
}

AVFrame& Media::Impl::next_scene(const EncoderSettings& settings) {
  const bool full_range = settings.codec == kCodecMjpeg;
  if (!scene || !scene->shows(settings.width, settings.height, full_range))
    scene.emplace(options.source, settings.width, settings.height, full_range);
  const u32 counter = ++last_counter;
  note_scene(counter);
  ++pictures;
  return scene->picture(counter, options.view ? options.view() : CameraView{});
}

void Media::Impl::make_picture(const EncoderSettings& settings) {
  if (settings.codec == kCodecYuy2) {
    vpss.wait_for_taker();
    AVFrame& picture = next_scene(settings);
    note_payload(last_counter, yuy2_payload(picture));
    const std::lock_guard lock(mutex);
    if (!new_stream) vpss.publish(picture);
  } else if (vpss.somebody_waits()) {
    // The subsystem runs whatever is encoded: a taker left over from the former stream gets its picture.
    vpss.publish(next_scene(settings));
  } else if (EncFrameSlot* slot = ring ? ring->acquire() : nullptr) {
    encode(settings, *slot);
  }
}

void Media::Impl::encode(const EncoderSettings& settings, EncFrameSlot& slot) {
  key_frame = ring->take_gap() || key_frame;
  AVFrame& picture = next_scene(settings);
  const auto frame = lent_encoder ? lent_encoder->encode(settings, picture, key_frame)
                                  : encoder.encode(settings, picture, key_frame);
  if (!frame) return ring->abandon(slot);
  note_payload(last_counter, frame->data);
  ++encoded;
  std::unique_lock lock(mutex);
  changed.wait_for(lock, slowness, [this] { return quit || new_stream || fault != EncoderFault::kSlow; });
  if (new_stream) return ring->abandon(slot);
  key_frame = !ring->publish(slot, *frame, settings.width, settings.height);
  if (key_frame) ++dropped;
}

Media::Media(const MediaOptions& options) {
  av_log_set_level(AV_LOG_QUIET);
  impl_ = std::make_unique<Impl>(options);
}

Media::~Media() = default;

void Media::apply(const EncoderSettingsMessage& message) {
  {
    const std::lock_guard lock(impl_->mutex);
    if (!same_stream(impl_->wanted, message)) impl_->end_stream();
    impl_->wanted = message;
  }
  impl_->changed.notify_one();
}

void Media::set_fault(EncoderFault fault, std::chrono::milliseconds time) {
  std::unique_lock lock(impl_->mutex);
  impl_->slowness = time;
  const EncoderFault former = std::exchange(impl_->fault, fault);
  lock.unlock();
  if (former == EncoderFault::kGone && fault != EncoderFault::kGone) impl_->come();
  if (fault == EncoderFault::kGone && former != EncoderFault::kGone) impl_->leave();
  impl_->changed.notify_one();
}

u32 Media::pool_address() { return kAvPoolBase; }
u32 Media::pool_size() { return kAvPoolSize; }

Media::Counts Media::counts() const {
  const std::lock_guard lock(impl_->mutex);
  const unsigned long taken_back = impl_->former_drops + (impl_->ring ? impl_->ring->dropped() : 0);
  return {impl_->pictures, impl_->encoded, impl_->dropped + taken_back};
}

}  // namespace sim
