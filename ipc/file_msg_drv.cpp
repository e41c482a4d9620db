#include "ipc/file_msg_drv.h"

#include <sys/shm.h>

#include <atomic>
#include <cstdio>
#include <cstring>

#include "common/word.h"
#include "ipc/msg_channel.h"
#include "ipc/msg_records.h"
#include "ipc/msg_util.h"
#include "ipc/sem_util.h"
#include "ipc/share_mem.h"
#include "platform/sys.h"
#include "support/print.h"
#include "support/support.h"

namespace {

constexpr char kPrintFile[] = "file_msg_drv.c";

constexpr std::size_t kRecordSize = kMsgTypeSize + kFileMsgPayload;
constexpr std::size_t kLeastSegment = kSysInfoLength;
// A segment is mapped in whole pages, so the areas after the record exist however small it is.
static_assert(kRequestFlagsOffset + sizeof(u32) <= 4096);
constexpr int kReadyChecks = 1000;
constexpr useconds_t kReadyPause = 10000;
constexpr i32 kToleratedFailures = 2;

struct Driver {
  SemHandle lock = nullptr;
  MsgChannel channel;
  Word segment{-1};
  std::atomic<u8*> base{nullptr};
  i32 failed_writes = 0;

  std::atomic_flag renewing;  // guards the members below
  SegmentKey segment_key;
  u8* former_base = nullptr;  // stays attached for those who still hold a pointer into it
};
Driver driver;

// Returns null if the segment is too small or cannot be attached.
u8* attach(i32 segment) {
  if (ShareMemSize(segment) < kLeastSegment) return nullptr;
  void* base = shmat(segment, nullptr, 0);
  return base == reinterpret_cast<void*>(-1) ? nullptr : static_cast<u8*>(base);
}

// Switches to the segment that the server has created in place of a former one, if any. If the new one is too
// small, nothing changes.
void renew() {
  const i32 segment = driver.segment_key.segment(driver.segment);
  u8* base = segment != driver.segment ? attach(segment) : nullptr;
  if (!base) return;
  if (driver.former_base) shmdt(driver.former_base);
  driver.former_base = driver.base.exchange(base);
  driver.segment = segment;
}

// Returns where the segment is attached now, or null before InitFileMsgDrv. A thread that finds another one
// looking goes on with the segment that it has.
u8* attached() {
  if (!driver.renewing.test_and_set(std::memory_order_acquire)) {
    renew();
    driver.renewing.clear(std::memory_order_release);
  }
  return driver.base;
}

template <typename Area>
Area* area(std::size_t offset) {
  u8* base = attached();
  return base ? reinterpret_cast<Area*>(base + offset) : nullptr;
}

SysInfo* info() { return area<SysInfo>(0); }

// Returns the area that begins with a marker once the marker is there, or prints an error and returns null.
void* when_ready(std::size_t offset) {
  for (int check = 0; check < kReadyChecks; ++check) {
    u32* marker = area<u32>(offset);
    if (std::atomic_ref(*marker).load(std::memory_order_acquire) == SYSINFO_MAGIC) return marker;
    sys::usleep(kReadyPause);
  }
  PRINT_ERROR("Timeout!\n");
  return nullptr;
}

// Makes one transaction under the lock. Returns true if the server reports success.
bool server_accepts(i32 cmd, i32 section) {
  Msg_Settle(driver.channel);
  FileMsgBuf record{kServerMsgType, cmd, driver.channel.process, driver.segment, 0, section, {0, 0}};
  return Msg_Transact(driver.channel, &record, kRecordSize) >= 0 && record.length == kSysInfoLength;
}

template <typename Value>
i32 set_field(Value SysInfo::*field, Value value) {
  SysInfo* record = info();
  if (!record) return -1;
  record->*field = value;
  return SetSysInfo(kSectionNetwork);
}

template <typename Record>
i32 set_record(Record& stored, const Record& wanted, SysInfoSection section) {
  if (std::memcmp(&stored, &wanted, sizeof(stored)) == 0) return 0;
  stored = wanted;
  return SetSysInfo(section);
}

constexpr std::size_t kPathRoom = 128;
constexpr std::size_t kLineLimit = 511;

// Like fgets, but returns the length, so that NUL bytes are kept, and 0 at the end of the file.
std::size_t read_line(std::FILE* file, char (&line)[kLineLimit]) {
  std::size_t length = 0;
  while (length < kLineLimit) {
    const int byte = std::getc(file);
    if (byte == EOF) break;
    line[length++] = static_cast<char>(byte);
    if (byte == '\n') break;
  }
  return length;
}

bool copy_replacing(std::FILE* from, std::FILE* to, const char* prefix, const char* replacement) {
  const std::size_t prefix_length = std::strlen(prefix);
  char line[kLineLimit];
  while (const std::size_t length = read_line(from, line)) {
    if (length >= prefix_length && std::memcmp(line, prefix, prefix_length) == 0)
      std::fputs(replacement, to);
    else
      std::fwrite(line, 1, length, to);
  }
  return !std::ferror(from) && !std::ferror(to);
}

}  // namespace

i32 InitFileMsgDrv(key_t key, i32 process_id) {
  if (!driver.lock) driver.lock = MakeSem();
  if (!driver.lock) {
    PRINT_ERROR("Semaphore create fail!!!\n");
    return -1;
  }
  PRINT_DEBUG("Semaphore Addr: %p\n", static_cast<void*>(driver.lock));
  driver.channel.queue = Msg_Init(key);
  if (driver.channel.queue < 0) {
    PRINT_ERROR("Message init fail\n");
    DestroySem(driver.lock);
    return -1;
  }
  driver.channel.key = key;
  driver.segment = pShareMemInit(key);
  if (driver.segment < 0) {
    PRINT_ERROR("Share memory id error\n");
    Msg_Kill(driver.channel.queue);
    DestroySem(driver.lock);
    return -1;
  }
  PRINT_DEBUG("Share Memory id : %d\n", static_cast<i32>(driver.segment));
  driver.base = attach(driver.segment);
  if (!driver.base) {
    PRINT_ERROR("Share memory %d is too small or cannot be attached\n", static_cast<i32>(driver.segment));
    DestroySem(driver.lock);
    return -1;
  }
  PRINT_DEBUG("Share Memory Address:%p\n", static_cast<void*>(driver.base));
  driver.segment_key = SegmentKey(key);
  driver.channel.process = process_id;
  return 0;
}

void CleanupFileMsgDrv() {
  driver.segment_key = {};
  for (u8* base : {driver.base.load(), driver.former_base})
    if (base) shmdt(base);
  DestroySem(driver.lock);
}

SysInfo* GetSysInfo() { return driver.base ? static_cast<SysInfo*>(when_ready(0)) : nullptr; }

void* GetSysState(bool wait) {
  if (!wait) return area<void>(kSysStateOffset);
  return driver.base ? when_ready(kSysStateOffset) : reinterpret_cast<void*>(kSysStateOffset);
}

CameraCache* GetSysCameraCache() { return area<CameraCache>(kCameraCacheOffset); }
u32* GetSysRequestFlags() { return area<u32>(kRequestFlagsOffset); }

i32 SetSysInfo(i32 section) {
  SemGuard guard(driver.lock);
  if (guard.given_up()) return -1;
  if (driver.failed_writes > kToleratedFailures) {
    driver.failed_writes = 0;
    driver.channel.queue = Msg_Init(driver.channel.key);
  }
  if (server_accepts(kFileMsgWritten, section)) return 0;
  PRINT_ERROR("Data write error\n");
  ++driver.failed_writes;
  return -1;
}

i32 fResetSysInfo() {
  SemGuard guard(driver.lock);
  if (guard.given_up()) return -1;
  if (server_accepts(kFileMsgReset, 0)) return 0;
  PRINT_ERROR("FILE_MSG_RESET fail\n");
  return -1;
}

i32 fSaveSysDefInfo() {
  SemGuard guard(driver.lock);
  if (guard.given_up()) return -1;
  if (server_accepts(kFileMsgSaveDefaults, 0)) return 0;
  PRINT_ERROR("FILE_MSG_SAVE_DEF fail\n");
  return -1;
}

i32 SetSysWord240(u32 value) { return set_field(&SysInfo::word240, value); }
i32 SetSysMac(const char* text) {
  SysInfo* record = info();
  if (!record) return -1;
  unsigned parts[6] = {};
  std::sscanf(text, "%02x:%02x:%02x:%02x:%02x:%02x", &parts[0], &parts[1], &parts[2], &parts[3], &parts[4],
              &parts[5]);
  for (int i = 0; i < 6; ++i) record->mac[i] = static_cast<u8>(parts[i]);
  return SetSysInfo(kSectionNetwork);
}
i32 SetSysWord252(u32 value) { return set_field(&SysInfo::word252, value); }
i32 SetSysWord256(u32 value) { return set_field(&SysInfo::word256, value); }
i32 SetSysWord260(u32 value) { return set_field(&SysInfo::word260, value); }
i32 SetSysByte278(u8 value) { return set_field(&SysInfo::byte278, value); }
i32 SetSysHalf268(u16 value) { return set_field(&SysInfo::half268, value); }
i32 SetSysHalf272(u16 value) { return set_field(&SysInfo::half272, value); }
i32 SetSysHalf266(u16 value) { return set_field(&SysInfo::half266, value); }
i32 SetSysListenPort(u16 port) {
  if (!driver.base) return -1;
  char line[32];
  std::snprintf(line, sizeof(line), "listen\t\t%d;\n", port);
  ReplaceConfigLine("/etc/srs.conf", "listen", line);
  return set_field(&SysInfo::listen_port, port);
}
i32 SetSysWebPort(u16 port) {
  if (!driver.base) return -1;
  char line[32];
  std::snprintf(line, sizeof(line), "server.port = %d\n", port);
  ReplaceConfigLine("/opt/vcam/www/config/lighttpd.conf", "server.port =", line);
  return set_field(&SysInfo::web_port, port);
}
i32 SetSysHalf274(u16 value) { return set_field(&SysInfo::half274, value); }
i32 SetSysHalf276(u16 value) { return set_field(&SysInfo::half276, value); }
i32 SetSysByte279(u8 value) { return set_field(&SysInfo::byte279, value); }

i32 SetSysRecord52(SysRecord52 record, i32 index) {
  SysInfo* stored = info();
  if (!stored || index < 0 || index > 3) return -1;
  return set_record(stored->records52[index], record, kSectionRecords52);
}
i32 SetSysRecord28(SysRecord28 record) {
  SysInfo* stored = info();
  return stored ? set_record(stored->record28, record, kSectionRecord28) : -1;
}

i32 ReplaceConfigLine(const char* path, const char* prefix, const char* replacement) {
  char copy[kPathRoom];
  if (std::snprintf(copy, sizeof(copy), "%s.bak", path) >= static_cast<int>(sizeof(copy))) return -1;
  std::FILE* from = sys::fopen(path, "rbe");
  if (!from) return -1;
  std::FILE* to = sys::fopen(copy, "wbe");
  if (!to) return -1;  // Deliberate: `from` stays open
  bool whole = copy_replacing(from, to, prefix, replacement);
  std::fclose(from);
  whole = std::fclose(to) == 0 && whole;
  if (!whole) return -1;
  char command[3 * kPathRoom + 16];
  std::snprintf(command, sizeof(command), "rm %s;mv %s %s", path, copy, path);
  pox_system(command);
  return 0;
}

void SetFileMsgQueue(i32 queue) { driver.channel.queue = queue; }

void SendFileMsgNotice() {
  FileMsgBuf record{};
  record.dest = kServerMsgType;
  Msg_Notify(driver.channel, &record, kRecordSize);
}
