#include "sim/parties/collector.h"

#include <algorithm>
#include <cstring>
#include <deque>
#include <mutex>

#include "elog/elog_record.h"
#include "sim/parties/channel.h"

namespace sim {

namespace {

constexpr std::size_t kKeptLines = 4096;
constexpr std::string_view kLevelLetters = "AEWIDV";

std::string_view without_newlines(std::string_view text) {
  return text.substr(0, text.find_last_not_of('\n') + 1);
}

}  // namespace

struct Collector::Impl {
  explicit Impl(const CollectorOptions& wanted) : options(wanted) {}

  void take(std::span<const u8> message);
  bool admits(u8 level, std::string_view text) const {
    return options.output && level <= options.level && text.find(options.contains) != text.npos;
  }

  const CollectorOptions options;
  mutable std::mutex lock;
  std::deque<Line> lines;
  Counts counts{};
  Channel channel{kElogQueueKey, kElogQueueType, [this](std::span<const u8> message) { take(message); }};
};

void Collector::Impl::take(std::span<const u8> message) {
  std::lock_guard guard(lock);
  ElogPayload record;
  if (message.size() < kElogHeaderSize || message.size() > sizeof(record)) {
    ++counts.malformed;
    return;
  }
  std::memcpy(&record, message.data(), message.size());
  if (record.level >= kLevelLetters.size() || record.length != message.size() - kElogHeaderSize) {
    ++counts.malformed;
    return;
  }
  const std::string text(record.text, message.size() - kElogHeaderSize);
  lines.push_back({counts.lines++, kLevelLetters[record.level], text});
  if (admits(record.level, text)) {
    const std::string_view shown = without_newlines(text);
    std::fprintf(options.output, "%c %.*s\n", kLevelLetters[record.level], static_cast<int>(shown.size()),
                 shown.data());
    ++counts.printed;
  }
  if (lines.size() > kKeptLines) lines.pop_front();
}

Collector::Collector(const CollectorOptions& options) : impl_(std::make_unique<Impl>(options)) {}
Collector::~Collector() = default;

void Collector::pause(bool paused) { impl_->channel.hold(paused); }

void Collector::set_gone(bool gone) { gone ? impl_->channel.leave() : impl_->channel.come(); }

void Collector::fill_queue() {
  constexpr std::string_view kFiller = "filler\n";
  ElogRecord record{};
  record.type = kElogQueueType;
  record.payload.level = static_cast<u8>(kLevelLetters.find('V'));
  record.payload.length = kFiller.size();
  std::ranges::copy(kFiller, record.payload.text);
  while (impl_->channel.send(&record, kElogHeaderSize + kFiller.size())) continue;
}

Collector::Counts Collector::counts() const {
  std::lock_guard guard(impl_->lock);
  return impl_->counts;
}

std::string Collector::text() const {
  std::lock_guard guard(impl_->lock);
  std::string text;
  for (const Line& line : impl_->lines) text += line.text;
  return text;
}

std::vector<Collector::Line> Collector::lines(unsigned long from) const {
  std::lock_guard guard(impl_->lock);
  const auto first = std::ranges::lower_bound(impl_->lines, from, {}, &Line::number);
  return {first, impl_->lines.end()};
}

}  // namespace sim
