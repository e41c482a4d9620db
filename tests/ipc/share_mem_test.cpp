#include "ipc/share_mem.h"

#include <gtest/gtest.h>
#include <sys/ipc.h>
#include <sys/shm.h>
#include <unistd.h>

#include <algorithm>
#include <climits>
#include <string>
#include <vector>

#include "ipc/msg_records.h"
#include "sim/seam/run.h"

namespace {

// Maps a segment for the test's own eyes.
u8* map(i32 id) { return static_cast<u8*>(shmat(id, nullptr, 0)); }
unsigned long attached(i32 id) {
  shmid_ds info;
  return shmctl(id, IPC_STAT, &info) == 0 ? info.shm_nattch : 99;
}

struct Copy {
  i32 offset, length;
  bool done;
};

void expect_copies(i32 id, i32 size, std::initializer_list<Copy> copies) {
  u8* segment = map(id);
  for (const auto& [offset, length, done] : copies) {
    SCOPED_TRACE(std::to_string(offset) + " " + std::to_string(length));
    std::fill_n(segment, size, 0x11);
    std::vector<u8> body(5000, 0x22);
    testing::internal::CaptureStderr();
    EXPECT_EQ(ShareMemWrite(offset, body.data(), length), 0);
    EXPECT_EQ(std::count(segment, segment + size, 0x22), done ? length : 0);
    EXPECT_TRUE(!done || segment[offset] + segment[offset + length - 1] == 0x44);
    std::fill_n(segment, size, 0x33);
    EXPECT_EQ(ShareMemRead(offset, body.data(), length), 0);
    EXPECT_EQ(std::count(body.begin(), body.end(), 0x33), done ? length : 0);

    const std::string numbers =
        "Overflow!" + std::to_string(offset) + "  " + std::to_string(length) + "  4096  102400\n";
    const std::string text = testing::internal::GetCapturedStderr();
    EXPECT_EQ(text.find("ShareMemWrite:" + numbers) != text.npos, !done);
    EXPECT_EQ(text.find("ShareMemRead:" + numbers) != text.npos, !done);
    EXPECT_EQ(attached(id), 1u);
  }
  shmdt(segment);
}

TEST(ShareMem, CopiesStayInsideTheSegment) {
  sim::Run run;
  const i32 id = ShareMemInit(kSysMsgKey);
  ASSERT_GE(id, 0);
  EXPECT_EQ(ShareMemSize(id), 102400u);
  shmid_ds info;
  ASSERT_EQ(shmctl(id, IPC_STAT, &info), 0);
  EXPECT_EQ(info.shm_perm.mode & 0777, 0660);
  expect_copies(id, kSysSegmentSize,
                {{98304, 4096, true},
                 {0, 4097, false},
                 {98305, 4096, false},
                 {102400, 1, false},
                 {-4096, 16, false},
                 {4096, -4096, false},
                 {INT_MAX, 4096, false},
                 {INT_MIN, INT_MIN, false}});
}

TEST(ShareMem, ASegmentMadeAnewIsFound) {
  sim::Run run;
  const i32 first = ShareMemInit(kSysMsgKey);
  u8* seen = map(first);
  shmctl(first, IPC_RMID, nullptr);  // can still be attached, since it is mapped here
  const i32 second = shmget(sim::run_key(kSysMsgKey), 8000, IPC_CREAT | 0660);
  const u8 written = 1;
  seen[0] = written;
  for (int tries = 0; seen[0] == written && tries < 100; ++tries) {
    usleep(10000);
    seen[0] = 0;
    EXPECT_EQ(ShareMemWrite(0, &written, 1), 0);
  }
  EXPECT_EQ(seen[0], 0);
  shmdt(seen);
  expect_copies(second, 8000, {{4096, 3904, true}, {4096, 3905, false}, {53248, 9, false}});

  shmctl(second, IPC_RMID, nullptr);  // is gone at once
  EXPECT_EQ(ShareMemWrite(0, &written, 1), -1);
  expect_copies(shmget(sim::run_key(kSysMsgKey), 5000, IPC_CREAT | 0660), 5000, {{0, 4096, true}});
}

TEST(ShareMem, OtherSegmentsAreOnlyFound) {
  sim::Run run;
  const i32 kept = ShareMemInit(kSysMsgKey);
  EXPECT_NE(pShareMemInit(kFileMsgKey), kept);
  expect_copies(kept, kSysSegmentSize, {{0, 10, true}});
}

TEST(ShareMem, CopyIsSkippedWhenNothingCanBeAttached) {
  sim::Run run;
  u8 body[4] = {1, 2, 3, 4};
  EXPECT_EQ(ShareMemWrite(0, body, 4), -1);
  const i32 id = ShareMemInit(kSysMsgKey);
  shmctl(id, IPC_RMID, nullptr);
  EXPECT_EQ(ShareMemRead(0, body, 4), -1);
  EXPECT_EQ(body[3], 4);
}

}  // namespace
