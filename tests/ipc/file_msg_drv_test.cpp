#include "ipc/file_msg_drv.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/ipc.h>
#include <sys/shm.h>
#include <sys/stat.h>

#include <algorithm>
#include <array>
#include <climits>
#include <filesystem>
#include <vector>

#include "support/print.h"
#include "tests/ipc/ipc_peer.h"
#include "tests/printed_by.h"

// Found by the leak sanitizer; the second failure of ReplaceConfigLine leaves its first file open on purpose.
extern "C" const char* __lsan_default_suppressions() { return "leak:ReplaceConfigLine"; }

namespace {

using testing::HasSubstr;

constexpr std::size_t kSegment = 8192;

class FileMsgDrv : public testing::Test {
 protected:
  FileMsgDrv() { std::fill_n(segment, kSegment, 0xEE); }
  ~FileMsgDrv() { shmdt(segment); }

  void open() { ASSERT_EQ(InitFileMsgDrv(kFileMsgKey, kFileMsgProcess), 0); }
  void mark(std::size_t offset) { put_le32(segment + offset, SYSINFO_MAGIC); }
  std::string record(const std::string& rest) const {
    char text[64];
    std::snprintf(text, sizeof(text), " 8:10000000 12:%08X", static_cast<u32>(__builtin_bswap32(u32(id))));
    return rest.substr(0, 10) + (id ? text : " 8:10000000") + rest.substr(10);
  }
  // The bytes that a call changed, as runs: "240:78563412".
  std::string changes(const std::vector<u8>& before) const {
    std::string text;
    char byte[16];
    for (std::size_t i = 0; i < kSegment; ++i) {
      if (segment[i] == before[i]) continue;
      if (i == 0 || segment[i - 1] == before[i - 1])
        text += (text.empty() ? "" : " ") + std::to_string(i) + ":";
      std::snprintf(byte, sizeof(byte), "%02X", segment[i]);
      text += byte;
    }
    return text;
  }
  static void accept(FileMsgBuf& reply) { reply.length = kSysInfoLength; }

  sim::Run run;
  FilePeer peer{kFileMsgKey};
  int id = shmget(sim::run_key(kFileMsgKey), kSegment, IPC_CREAT | 0660);
  u8* segment = static_cast<u8*>(shmat(id, nullptr, 0));
};

TEST_F(FileMsgDrv, GettersPointIntoTheSegment) {
  open();
  mark(0);
  mark(kSysStateOffset);
  put_le32(segment + 284, 7);
  put_le32(segment + 2956 + 80, CAMERA_CACHE_VALID);
  ASSERT_NE(GetSysInfo(), nullptr);
  EXPECT_EQ(GetSysInfo()->usb_port, 7u);
  EXPECT_EQ(GetSysCameraCache()->valid, CAMERA_CACHE_VALID);
  *GetSysRequestFlags() = 1;
  EXPECT_EQ(get_le32(segment + 3040), 1u);
  EXPECT_EQ(static_cast<u8*>(GetSysState(true)) - reinterpret_cast<u8*>(GetSysInfo()), 2640);
  EXPECT_EQ(GetSysState(false), GetSysState(true));
}

TEST_F(FileMsgDrv, WaitsForTheMarkersTenSeconds) {
  open();
  sim::set_sleep_divisor(1000);
  EXPECT_THAT(printed_by([] { EXPECT_EQ(GetSysInfo(), nullptr); }), HasSubstr("Timeout!\n"));
  EXPECT_EQ(sim::sleep_count().calls, 1000u);
  EXPECT_EQ(sim::sleep_count().microseconds, 10000000u);
  EXPECT_EQ(GetSysState(true), nullptr);
  EXPECT_NE(GetSysState(false), nullptr);

  sim::set_sleep_divisor(1);
  std::thread server([this] {
    usleep(30000);
    std::atomic_ref<u32>(*reinterpret_cast<u32*>(segment)).store(SYSINFO_MAGIC);
  });
  EXPECT_NE(GetSysInfo(), nullptr);
  server.join();
}

SysRecord52 record52(u8 byte) {
  SysRecord52 record;
  std::fill_n(record.bytes, sizeof(record.bytes), byte);
  return record;
}

struct Setter {
  i32 (*set)();
  std::string changed;  // runs of bytes in the segment, which holds EE everywhere before
  const char* section;  // in the record; empty: nothing is sent
};

TEST_F(FileMsgDrv, SettersWriteTheirFieldAndTellTheServer) {
  std::string sevens;
  while (sevens.size() < 104) sevens += "07";
  const Setter setters[] = {
      {[] { return SetSysWord240(0x12345678); }, "240:78563412", "20:02000000"},
      {[] { return SetSysHalf266(0x1234); }, "266:3412", "20:02000000"},
      {[] { return SetSysHalf272(0x1234); }, "272:3412", "20:02000000"},
      {[] { return SetSysHalf274(0x1234); }, "274:3412", "20:02000000"},
      {[] { return SetSysHalf276(0x1234); }, "276:3412", "20:02000000"},
      {[] { return SetSysByte279(9); }, "279:09", "20:02000000"},
      {[] { return SetSysMac("02:a6:5"); }, "244:02A605000000", "20:02000000"},
      {[] { return SetSysWebPort(8080); }, "264:901F", "20:02000000"},
      {[] { return SetSysListenPort(1935); }, "270:8F07", "20:02000000"},
      {[] { return SetSysRecord52(record52(7), 0); }, "4:" + sevens, "20:01000000"},
      {[] { return SetSysRecord52(record52(7), 3); }, "160:" + sevens, "20:01000000"},
      {[] { return SetSysRecord52(record52(0xEE), 2); }, "", ""},
      {[] { return SetSysRecord28({}); }, "212:" + std::string(56, '0'), "20:04000000"},
  };
  open();
  for (const Setter& row : setters) {
    SCOPED_TRACE(row.changed);
    std::fill_n(segment, kSegment, 0xEE);
    const std::vector<u8> before(segment, segment + kSegment);
    if (*row.section)
      EXPECT_EQ(peer.serve([&] { EXPECT_EQ(row.set(), 0); }, accept),
                record("4:01000000 " + std::string(row.section)));
    else
      EXPECT_EQ(row.set(), 0);
    EXPECT_EQ(changes(before), row.changed);
  }
  const std::vector<u8> before(segment, segment + kSegment);
  for (const i32 index : {4, -1, INT_MIN, INT_MAX}) EXPECT_EQ(SetSysRecord52(record52(1), index), -1);
  EXPECT_EQ(changes(before), "");
}

TEST_F(FileMsgDrv, OnlyTheExactReplyLengthIsSuccess) {
  open();
  struct Request {
    i32 (*call)();
    const char* record;
    const char* failure;
  };
  const Request requests[] = {
      {[] { return SetSysInfo(kSectionNetwork); }, "4:01000000 20:02000000", "Data write error\n"},
      {fResetSysInfo, "4:02000000", "FILE_MSG_RESET fail\n"},
      {fSaveSysDefInfo, "4:03000000", "FILE_MSG_SAVE_DEF fail\n"},
  };
  for (const auto& [call, sent, failure] : requests)
    for (const i32 length : {2639, 2640, 2641}) {
      const auto check = [&] { EXPECT_EQ(call(), length == 2640 ? 0 : -1); };
      const std::string text = printed_by([&] {
        EXPECT_EQ(peer.serve(check, [&](FileMsgBuf& reply) { reply.length = length; }), record(sent));
      });
      EXPECT_EQ(text.find(failure) != text.npos, length != 2640);
    }
}

TEST_F(FileMsgDrv, QueueIsOpenedAnewAfterThreeFailures) {
  open();
  const FilePeer stranger(kSysMsgKey);
  SetFileMsgQueue(stranger.queue());
  for (int failure = 0; failure < 3; ++failure)
    stranger.serve([] { EXPECT_EQ(SetSysInfo(1), -1); }, [](FileMsgBuf& reply) { reply.length = 2639; });
  SendFileMsgNotice();
  EXPECT_EQ(record_text(stranger.take(), kFileMsgPayload), "");
  const std::string sent = peer.serve([] { EXPECT_EQ(SetSysInfo(1), 0); }, accept);
  EXPECT_EQ(sent, record("4:01000000 20:01000000"));
}

TEST_F(FileMsgDrv, PortSettersRewriteTheConfigurationFiles) {
  open();
  run.write_file("/etc/srs.conf", "listen  1;\nmax 1000;\nlistening 2;\n listen 3;\nlisten");
  run.write_file("/opt/vcam/www/config/lighttpd.conf", "server.port = 80\nserver.port=81\n");
  peer.serve([] { EXPECT_EQ(SetSysListenPort(65535), 0); }, accept);
  peer.serve([] { EXPECT_EQ(SetSysWebPort(8080), 0); }, accept);
  EXPECT_EQ(run.read_file("/etc/srs.conf"),
            "listen\t\t65535;\nmax 1000;\nlisten\t\t65535;\n listen 3;\nlisten\t\t65535;\n");
  EXPECT_EQ(run.read_file("/opt/vcam/www/config/lighttpd.conf"), "server.port = 8080\nserver.port=81\n");
  EXPECT_THAT(run.shell_log(), HasSubstr("rm /etc/srs.conf;mv /etc/srs.conf.bak /etc/srs.conf\n"));
}

TEST_F(FileMsgDrv, ReplacedFilesLoseNothingElse) {
  using namespace std::string_literals;
  const std::string body = "\0a\n"s + "key\0x\n"s + std::string(511, 'b') + "key\n" + std::string(3000, 'c');
  const std::string after = "\0a\n"s + "new\n" + std::string(511, 'b') + "new\n" + std::string(3000, 'c');
  run.write_file("/etc/x.conf", body);
  EXPECT_EQ(ReplaceConfigLine("/etc/x.conf", "key", "new\n"), 0);
  EXPECT_EQ(run.read_file("/etc/x.conf"), after);

  const std::string longest = "/etc/" + std::string(118, 'f');
  for (const std::string& path : {longest, longest + "f"}) {
    run.write_file(path, "key\n");
    const bool fits = path == longest;
    EXPECT_EQ(ReplaceConfigLine(path.c_str(), "key", "new\n"), fits ? 0 : -1);
    EXPECT_EQ(run.read_file(path), fits ? "new\n" : "key\n");
  }
}

TEST_F(FileMsgDrv, UnopenedFilesLeaveTheConfigurationAlone) {
  EXPECT_EQ(ReplaceConfigLine("/etc/missing.conf", "key", "new\n"), -1);
  run.write_file("/etc/x.conf", "key\n");
  std::filesystem::create_directory(run.path("/etc/x.conf.bak"));
  EXPECT_EQ(ReplaceConfigLine("/etc/x.conf", "key", "new\n"), -1);
  EXPECT_EQ(run.read_file("/etc/x.conf"), "key\n");
  EXPECT_EQ(run.shell_log(), "");
}

TEST_F(FileMsgDrv, WithoutAnAttachedSegmentNothingIsRead) {
  EXPECT_EQ(GetSysInfo(), nullptr);
  EXPECT_EQ(GetSysCameraCache(), nullptr);
  EXPECT_EQ(GetSysRequestFlags(), nullptr);
  EXPECT_EQ(GetSysState(false), nullptr);
  EXPECT_EQ(reinterpret_cast<std::uintptr_t>(GetSysState(true)), 2640u);
  EXPECT_EQ(SetSysWord240(1), -1);
  EXPECT_EQ(SetSysMac("1:2:3:4:5:6"), -1);
  EXPECT_EQ(SetSysWebPort(1), -1);
  EXPECT_EQ(SetSysRecord52({}, 0), -1);
  EXPECT_EQ(peer.waiting(), 0u);
}

TEST_F(FileMsgDrv, TooSmallASegmentFailsTheStart) {
  shmctl(id, IPC_RMID, nullptr);
  const int small = shmget(sim::run_key(kFileMsgKey), kSysInfoLength - 1, IPC_CREAT | 0660);
  ASSERT_GE(small, 0);
  EXPECT_THAT(printed_by([] { EXPECT_EQ(InitFileMsgDrv(kFileMsgKey, kFileMsgProcess), -1); }),
              HasSubstr("is too small or cannot be attached\n"));
  EXPECT_EQ(msgget(sim::run_key(kFileMsgKey), 0), peer.queue()) << "the server's queue stays";
  EXPECT_EQ(GetSysInfo(), nullptr);
}

TEST_F(FileMsgDrv, ASegmentMadeAnewTakesTheFormersPlace) {
  open();
  u32* const flags = GetSysRequestFlags();
  for (const std::size_t size : {kSysInfoLength - 1, kSysInfoLength}) {  // the first is too small to be used
    shmctl(id, IPC_RMID, nullptr);
    id = shmget(sim::run_key(kFileMsgKey), size, IPC_CREAT | 0660);
    for (int i = 0; i < 80 && GetSysRequestFlags() == flags; ++i) usleep(10000);
    EXPECT_EQ(GetSysRequestFlags() == flags, size < kSysInfoLength);
  }
  *flags = 1;  // whoever still has it may use it
  *GetSysRequestFlags() = 2;
  EXPECT_EQ(get_le32(segment + kRequestFlagsOffset), 1u);
  shmdt(segment);
  segment = static_cast<u8*>(shmat(id, nullptr, 0));
  EXPECT_EQ(get_le32(segment + kRequestFlagsOffset), 2u);
  mark(0);
  EXPECT_EQ(peer.serve([] { EXPECT_EQ(SetSysWord240(3), 0); }, accept), record("4:01000000 20:02000000"));
  EXPECT_EQ(GetSysInfo()->word240, 3u);
  EXPECT_EQ(get_le32(segment + 240), 3u);
}

TEST_F(FileMsgDrv, ThreadsWaitForEachOthersTransactions) {
  open();
  peer.serve_two(
      300, [](i32) { EXPECT_EQ(SetSysInfo(2), 0); }, accept);
}

}  // namespace
