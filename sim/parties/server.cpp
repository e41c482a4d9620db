#include "sim/parties/server.h"

#include <sys/ipc.h>
#include <sys/shm.h>

#include <algorithm>
#include <atomic>
#include <cstdlib>
#include <cstring>
#include <mutex>
#include <optional>
#include <random>
#include <utility>

#include "sim/parties/channel.h"
#include "sim/parties/server_fault.h"
#include "sim/parties/visca_device.h"
#include "sim/seam/run.h"
#include "visca/visca_frame.h"

namespace sim {

namespace {

constexpr i32 kFirstProcess = 2;  //< a reply to message type 1 would come back to the server itself
constexpr i32 kLastProcess = 24;  //< nobody uses it
constexpr std::chrono::milliseconds kSlowDelay{300};
constexpr std::chrono::milliseconds kLateness{6000};  //< longer than any host waits for a class request

bool is_client(i32 process_id) { return process_id >= kFirstProcess && process_id <= kLastProcess; }

// A shared segment of the camera, attached while the object lives.
class Segment {
 public:
  explicit Segment(i32 key) : key_(key) { attach(); }
  ~Segment() { shmdt(start_); }
  Segment(const Segment&) = delete;

  // Another segment in the place of one that was removed. Not while a channel's thread runs.
  void attach_anew() {
    shmdt(start_);
    attach();
  }

  u8* at(std::size_t offset) const { return start_ + offset; }
  u32 word(std::size_t offset) const { return reference(offset).load(); }
  void set_word(std::size_t offset, u32 value) const { reference(offset).store(value); }

 private:
  void attach() {
    const int id = shmget(run_key(key_), kSysSegmentSize, IPC_CREAT | 0660);
    start_ = id < 0 ? nullptr : static_cast<u8*>(shmat(id, nullptr, 0));
    if (id >= 0 && start_ != reinterpret_cast<u8*>(-1)) return;
    std::perror("no shared segment");
    std::exit(1);
  }
  std::atomic_ref<u32> reference(std::size_t offset) const {
    return std::atomic_ref<u32>(*reinterpret_cast<u32*>(start_ + offset));
  }
  const i32 key_;
  u8* start_;
};

// The parameter segment, filled from construction on.
struct Parameters {
  Parameters(const ServerOptions& options, const PictureSettings& settings) { fill(options, settings); }
  void fill(const ServerOptions& options, const PictureSettings& settings) const;
  // The words of the camera-value cache.
  void cache(const PictureSettings& settings) const;
  Segment segment{kFileMsgKey};
};

void Parameters::fill(const ServerOptions& options, const PictureSettings& settings) const {
  SysInfo info{};
  const u8 mac[6] = {0x02, 0x16, 0xA5, 0x00, 0x00, 0x01};
  std::memcpy(info.mac, mac, sizeof(mac));
  info.web_port = 80;
  info.listen_port = 1935;
  info.usb_port = options.usb_port;

  std::memset(segment.at(0), 0, kSysSegmentSize);
  std::memcpy(segment.at(0), &info, sizeof(info));
  cache(settings);
  segment.set_word(kCameraCacheOffset + offsetof(CameraCache, valid),
                   options.cache_valid ? CAMERA_CACHE_VALID : 0);
  if (!options.ready) return;
  segment.set_word(kSysStateOffset, SYSINFO_MAGIC);
  segment.set_word(0, SYSINFO_MAGIC);
}

void Parameters::cache(const PictureSettings& settings) const {
  const std::pair<u32, u32> words[] = {{0, settings.brightness}, {1, settings.contrast},
                                       {3, settings.saturation}, {4, settings.sharpness},
                                       {5, settings.gamma},      {6, settings.auto_white_balance},
                                       {9, settings.power_line}};
  for (const auto& [word, value] : words) segment.set_word(kCameraCacheOffset + sizeof(value) * word, value);
}

std::string as_hex(std::span<const u8> bytes) {
  std::string text;
  char byte[4];
  for (const u8 value : bytes) {
    std::snprintf(byte, sizeof(byte), " %02X", value);
    text += byte;
  }
  return text;
}

// A request as its record; nothing when the sender's record has another size.
template <class Record, std::size_t kPayload>
std::optional<Record> as_record(std::span<const u8> payload) {
  if (payload.size() != kPayload) return std::nullopt;
  Record record{};
  std::memcpy(reinterpret_cast<u8*>(&record) + sizeof(record.dest), payload.data(), kPayload);
  return record;
}

// Offsets count from the record's start on the camera, as the command table names them.
i32 get_word(const VeltoMsgBuf& record, i32 offset) {
  return static_cast<i32>(get_le32(record.payload + velto_payload_offset(offset)));
}
void put_word(VeltoMsgBuf& record, i32 offset, i32 value) {
  put_le32(record.payload + velto_payload_offset(offset), static_cast<u32>(value));
}

std::string as_decimal(std::initializer_list<i32> words) {
  std::string text;
  for (const i32 word : words) text += ' ' + std::to_string(word);
  return text;
}

// A text field: up to its terminator or `most` bytes, whatever the record holds.
std::string quoted(const VeltoMsgBuf& record, i32 offset, i32 most) {
  const char* const start = reinterpret_cast<const char*>(record.payload) + velto_payload_offset(offset);
  std::string text(start, strnlen(start, static_cast<std::size_t>(most)));
  std::ranges::replace_if(
      text, [](char c) { return c < ' ' || c > '~'; }, '.');
  return " \"" + text + '"';
}

// A line such as "velto 12 O 2": R is a request, O a one-way command; then its words and its text.
std::string describe(const VeltoCommandRow& row, const VeltoMsgBuf& record) {
  std::string line = "velto" + as_decimal({row.number}) + (row.request ? " R" : " O");
  for (const u8 offset : row.in) line += as_decimal({get_word(record, offset)});
  return row.text_room ? line + quoted(record, velto_text_offset(row), row.text_room) : line;
}

}  // namespace

struct Server::Impl {
  explicit Impl(const ServerOptions& wanted) : options(wanted) {}

  // How a command of the control channel is carried out and answered; the others are answered with 0.
  struct Action {
    i32 command;
    i32 status = 0;
    void (Impl::*act)(VeltoMsgBuf&) = nullptr;
  };
  static const Action kActions[];

  void file_message(std::span<const u8> payload);
  void velto_message(std::span<const u8> payload);
  void carry_out(VeltoMsgBuf& record);
  void sys_message(std::span<const u8> payload);
  i32 exchange(const SysMsgBuf& record);
  std::vector<u8> obey(std::span<const u8> frame);
  void send_answer(SysMsgBuf record);
  void leave();
  void come();
  void garble(SysMsgBuf& record);

  void get_memory(VeltoMsgBuf& record);
  void store_encoder_settings(VeltoMsgBuf& record);
  void get_position(VeltoMsgBuf& record);
  void get_absolute(VeltoMsgBuf& record);
  void start_motion(VeltoMsgBuf& record);
  void set_position(VeltoMsgBuf& record);

  void note(const std::string& line);
  void refuse(const std::string& line);

  const ServerOptions options;
  mutable std::mutex lock;
  std::vector<std::string> received;
  std::FILE* log = nullptr;
  EncoderSettingsMessage encoder_settings{};
  std::function<void(const EncoderSettingsMessage&)> handler;
  CameraHead own_head;
  CameraHead& head = options.head ? *options.head : own_head;
  std::atomic<unsigned long> refused = 0;
  std::atomic<ServerFault> fault = ServerFault::kNone;
  std::atomic<std::chrono::milliseconds> lateness = kLateness;
  SysMsgBuf last_answer{};  //< this and `random`: only the system-message channel's thread uses them
  std::mt19937 random;

  Parameters parameters{options, head.settings()};
  Segment slots{kSysMsgKey};
  Channel file_channel{kFileMsgKey, kServerMsgType, [this](auto payload) { file_message(payload); }};
  Channel velto_channel{kVeltoMsgKey, kServerMsgType, [this](auto payload) { velto_message(payload); }};
  Channel sys_channel{kSysMsgKey, kServerMsgType, [this](auto payload) { sys_message(payload); }};
  Channel* const channels[3] = {&file_channel, &velto_channel, &sys_channel};
};

// The pool holds no frames: whoever asks for one learns that there is none.
const Server::Impl::Action Server::Impl::kActions[] = {
    {.command = kVeltoGetMemory, .act = &Impl::get_memory},
    {.command = 3, .status = -1},
    {.command = 4, .status = -97},
    {.command = 5, .status = -98},
    {.command = 8, .status = -1},
    {.command = 9, .status = -1},
    {.command = kVeltoEncoderSettings, .act = &Impl::store_encoder_settings},
    {.command = kVeltoPtzGetPosition, .act = &Impl::get_position},
    {.command = kVeltoPtzMotion, .act = &Impl::start_motion},
    {.command = kVeltoPtzSetPosition, .act = &Impl::set_position},
    {.command = kVeltoPtzGetAbsolute, .act = &Impl::get_absolute},
};

void Server::Impl::note(const std::string& line) {
  std::lock_guard guard(lock);
  received.push_back(line);
  if (!log) return;
  std::fprintf(log, "%s\n", line.c_str());
  std::fflush(log);
}

// For requests that make no sense.
void Server::Impl::refuse(const std::string& line) {
  note(line + " refused");
  ++refused;
}

void Server::Impl::file_message(std::span<const u8> payload) {
  auto record = as_record<FileMsgBuf, kFileMsgPayload>(payload);
  if (!record) return refuse("file length " + std::to_string(payload.size()));
  const std::string line = "file" + as_decimal({record->cmd, record->info});
  if (record->cmd == kFileMsgNotice) return note(line);
  const bool known = record->cmd > 0 && record->cmd <= kFileMsgSaveDefaults && is_client(record->src);
  if (known)
    note(line);
  else
    refuse(line);
  if (!is_client(record->src)) return;
  record->dest = record->src;
  record->length = known ? kSysInfoLength : 0;
  file_channel.send(&*record, kFileMsgPayload);
}

void Server::Impl::velto_message(std::span<const u8> payload) {
  auto record = as_record<VeltoMsgBuf, kVeltoMsgPayload>(payload);
  if (!record) return refuse("velto length " + std::to_string(payload.size()));
  const VeltoCommandRow* row = find_velto_command(record->cmd);
  const std::string line = row ? describe(*row, *record) : "velto" + as_decimal({record->cmd});
  const bool waited_for = is_client(record->src);
  if (!row || (row->request && !waited_for)) {
    refuse(line);
    record->ret = -1;
  } else {
    note(line);
    carry_out(*record);
  }
  if (!waited_for || (row && !row->request)) return;
  record->dest = record->src;
  velto_channel.send(&*record, kVeltoMsgPayload);
}

void Server::Impl::carry_out(VeltoMsgBuf& record) {
  const auto action = std::ranges::find(kActions, record.cmd, &Action::command);
  record.ret = 0;
  if (action == std::end(kActions)) return;
  record.ret = action->status;
  if (action->act) (this->*action->act)(record);
}

void Server::Impl::get_memory(VeltoMsgBuf& record) {
  record.ret = options.pool_address ? 0 : -1;
  put_word(record, 16, static_cast<i32>(options.pool_address));
  put_word(record, 20, static_cast<i32>(options.pool_size));
}

void Server::Impl::store_encoder_settings(VeltoMsgBuf& record) {
  std::unique_lock guard(lock);
  std::memcpy(&encoder_settings, record.payload + kVeltoWords, sizeof(encoder_settings));
  const auto message = encoder_settings;
  const auto notify = handler;
  guard.unlock();
  if (notify) notify(message);
}

void Server::Impl::get_position(VeltoMsgBuf& record) {
  const auto [pan, tilt] = head.position();
  put_word(record, 24, pan << 16 | (tilt & 0xFFFF));
}

void Server::Impl::get_absolute(VeltoMsgBuf& record) {
  const auto [pan, tilt] = head.position();
  put_word(record, 28, pan);
  put_word(record, 32, tilt & 0xFFFF);
}

// 0 stop, 1 left, 2 right, 3 up, 4 down.
void Server::Impl::start_motion(VeltoMsgBuf& record) {
  constexpr CameraHead::Direction kMotions[] = {{0, 0}, {-1, 0}, {1, 0}, {0, 1}, {0, -1}};
  const auto motion = static_cast<u32>(get_word(record, 24));
  if (motion < std::size(kMotions))
    return head.turn(kMotions[motion], kViscaPanTiltSpeed, kViscaPanTiltSpeed);
  ++refused;
}

void Server::Impl::set_position(VeltoMsgBuf& record) {
  head.turn_to({get_word(record, 28), get_word(record, 32)}, kViscaPanTiltSpeed, kViscaPanTiltSpeed);
}

void Server::Impl::sys_message(std::span<const u8> payload) {
  auto record = as_record<SysMsgBuf, kSysMsgPayload>(payload);
  if (!record) return refuse("sys length " + std::to_string(payload.size()));
  record->length = exchange(*record);
  record->dest = record->src;
  if (is_client(record->src)) send_answer(*record);
}

void Server::Impl::send_answer(SysMsgBuf record) {
  const ServerFault now = fault;
  if (now == ServerFault::kMute) return;
  if (now == ServerFault::kMisdirected) record.dest = kLastProcess;
  if (now == ServerFault::kGarbled) garble(record);
  if (now == ServerFault::kLate && !sys_channel.pause(lateness)) return;
  if (now == ServerFault::kAnswersTwice && last_answer.dest) sys_channel.send(&last_answer, kSysMsgPayload);
  sys_channel.send(&record, kSysMsgPayload);
  last_answer = record;
}

void Server::Impl::garble(SysMsgBuf& record) {
  record.length = std::uniform_int_distribution<i32>(-5, 5000)(random);
  u8* const slot = slots.at(static_cast<std::size_t>(sys_slot_offset(record.src)));
  std::generate_n(slot, std::clamp(record.length, 16, kSysSlotSize),
                  [this] { return static_cast<u8>(random()); });
}

// Carries out the request in its sender's slot and leaves the reply's body there. The reply's length, or -1.
i32 Server::Impl::exchange(const SysMsgBuf& record) {
  const std::string line = "sys" + as_decimal({record.cmd});
  const bool sound = record.cmd == kSysMsgVisca && is_client(record.src) &&
                     record.offset == sys_slot_offset(record.src) && record.length >= 0 &&
                     record.length <= kSysSlotSize;
  if (!sound) {
    refuse(line + as_decimal({record.src, record.length, record.offset}));
    return -1;
  }
  u8* const slot = slots.at(static_cast<std::size_t>(record.offset));
  const std::vector<u8> body(slot, slot + record.length);
  const std::vector<u8> reply = obey(body);
  note(line + as_hex(body) + " ->" + as_hex(reply));
  std::ranges::copy(reply, slot);
  return static_cast<i32>(reply.size());
}

std::vector<u8> Server::Impl::obey(std::span<const u8> frame) {
  const ViscaAnswer answer = obey_visca(head, frame);
  refused += answer.refused;
  parameters.cache(head.settings());
  return answer.bytes;
}

Server::Server(const ServerOptions& options) : impl_(std::make_unique<Impl>(options)) {}
Server::~Server() = default;

void Server::on_encoder_settings(std::function<void(const EncoderSettingsMessage&)> handler) {
  std::lock_guard guard(impl_->lock);
  impl_->handler = std::move(handler);
}

void Server::Impl::leave() {
  for (Channel* channel : channels) channel->leave();
  for (const i32 key : {kFileMsgKey, kSysMsgKey}) remove_objects(key);
}

void Server::Impl::come() {
  parameters.segment.attach_anew();
  parameters.fill(options, head.settings());
  slots.attach_anew();
  for (Channel* channel : channels) channel->come();
}

void Server::set_fault(ServerFault fault, std::optional<std::chrono::milliseconds> time) {
  impl_->lateness = time.value_or(kLateness);
  const ServerFault former = impl_->fault.exchange(fault);
  if (former == ServerFault::kGone && fault != ServerFault::kGone) impl_->come();
  if (fault == ServerFault::kGone && former != ServerFault::kGone) impl_->leave();
  for (Channel* channel : impl_->channels) {
    channel->set_delay(fault == ServerFault::kSlow ? time.value_or(kSlowDelay)
                                                   : std::chrono::milliseconds(0));
    channel->hold(fault == ServerFault::kDead || fault == ServerFault::kFull);
    if (fault == ServerFault::kFull) channel->fill();
  }
}

EncoderSettingsMessage Server::encoder_settings() const {
  std::lock_guard guard(impl_->lock);
  return impl_->encoder_settings;
}

u32 Server::request_flag(int word) const {
  return impl_->parameters.segment.word(kRequestFlagsOffset + sizeof(u32) * static_cast<unsigned>(word));
}

std::vector<std::string> Server::received(std::size_t from) const {
  std::lock_guard guard(impl_->lock);
  const auto& lines = impl_->received;
  return {lines.begin() + static_cast<std::ptrdiff_t>(std::min(from, lines.size())), lines.end()};
}

void Server::log_received(std::FILE* log) {
  std::lock_guard guard(impl_->lock);
  impl_->log = log;
}

unsigned long Server::refused() const { return impl_->refused; }

}  // namespace sim
