#include "support/memmap.h"

#include <cstdint>
#include <vector>

#include "tests/support/support_fixture.h"

namespace {

constexpr u32 kPage = 4096;

class MemmapTest : public SupportTest {
 protected:
  MemmapTest() { files_kept_ = 1; }  // the device stays open
  static u8* map(u32 phys, u32 size) { return static_cast<u8*>(memmap(phys, size)); }
};

TEST_F(MemmapTest, MapsThePagesThatCoverTheRange) {
  const std::string lost = "memunmap(): address have not been mmaped!\n";
  const struct {
    u32 phys, size, offset, length;
  } ranges[] = {
      {0x200F0F80, 128, 0xF80, kPage},
      {0x200F0F81, 128, 0xF81, 2 * kPage},
      {0xFFFFF000, kPage, 0, kPage},
  };
  for (const auto& range : ranges) {
    run_.set_register(range.phys & ~3u, range.phys);
    u8* virt = map(range.phys, range.size);
    ASSERT_NE(virt, nullptr);
    EXPECT_EQ(reinterpret_cast<std::uintptr_t>(virt) % kPage, range.offset);
    u8* start = virt - range.offset;
    EXPECT_EQ(get_le32(start + (range.offset & ~3u)), range.phys);
    // The address just past the end still belongs to the mapping, the next one does not.
    EXPECT_EQ(printed_by([&] { EXPECT_EQ(memunmap(start + range.length + 1), -1); }), lost);
    EXPECT_EQ(memunmap(start + range.length), 0);
    EXPECT_EQ(message_of([&] { EXPECT_EQ(memunmap(virt), -1); }), lost);
  }
}

TEST_F(MemmapTest, SharesTheOldestMappingUntilItsLastUser) {
  u8* first = map(0x20140000, kPage);
  EXPECT_EQ(map(0x20140FF0, 16), first + 0xFF0);
  u8* longer = map(0x20140FF0, 17);  // holds the page, too
  EXPECT_EQ(map(0x20140008, 4), first + 8);
  EXPECT_EQ(memunmap(first) + memunmap(first + 8), 0);
  first[0] = 42;  // still mapped
  EXPECT_EQ(memunmap(first + 0xFF0), 0);
  EXPECT_EQ(map(0x20140000, 4), longer - 0xFF0);
  EXPECT_EQ(*(longer - 0xFF0), 42);
}

TEST_F(MemmapTest, RefusesRangesThatAreNone) {
  EXPECT_EQ(message_of([] { EXPECT_EQ(map(0x20000000, 0), nullptr); }), "memmap():size can't be zero!\n");
  map(0x1000, 2 * kPage);  // a sum in 32 bits would find the ranges below inside it
  const struct {
    u32 phys, size;
    const char* message;
  } ranges[] = {{0xFFFFFFF0, 128, "memmap():mmap @ 0xfffff000 error!\n"},
                {0x1800, 0xFFFFF800, "memmap():mmap @ 0x1000 error!\n"},
                {0, 0xFFFFF001, "memmap():mmap @ 0x0 error!\n"}};
  for (const auto& range : ranges)
    EXPECT_EQ(message_of([&] { EXPECT_EQ(map(range.phys, range.size), nullptr); }), range.message);
}

TEST_F(MemmapTest, FullTableRefusesAndRecovers) {
  std::vector<u8*> mappings;
  for (u32 i = 0; i < 64; ++i) mappings.push_back(map(i * 2 * kPage, 4));
  EXPECT_EQ(message_of([] { EXPECT_EQ(map(0x20000000, 4), nullptr); }), "memmap():malloc new node failed!\n");
  EXPECT_EQ(map(0, 4), mappings[0]);  // sharing needs no room
  EXPECT_EQ(memunmap(mappings[0]) + memunmap(mappings[0]), 0);
  EXPECT_NE(map(0x20000000, 4), nullptr);
}

TEST_F(MemmapTest, OpensTheDeviceOnce) {
  const int closed_on_exec = open_files(FD_CLOEXEC);
  for (int turn = 0; turn < 3; ++turn) EXPECT_EQ(memunmap(map(0x20000000, 4)), 0);
  EXPECT_EQ(open_files(FD_CLOEXEC), closed_on_exec + 1);
}

}  // namespace
