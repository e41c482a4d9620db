#include "support/hi_tools.h"

#include <sys/mman.h>
#include <sys/stat.h>

#include <cstring>
#include <filesystem>

#include "sim/seam/node.h"
#include "tests/support/support_fixture.h"

namespace {

using HiToolsTest = SupportTest;
TEST_F(HiToolsTest, RegistersAreWrittenAndRead) {
  files_kept_ = 1;  // /dev/mem
  EXPECT_EQ(himm(0x200F0074, 0), 0);
  EXPECT_EQ(himm(0x200F0FFC, 0xA5A50001), 0);  // its window reaches into the next page
  run_.set_register(0x20260400, 0xFFFFFFFE);
  EXPECT_EQ(himd(0x20260400), 0xFFFFFFFEu);
  EXPECT_EQ(run_.register_value(0x200F0FFC), 0xA5A50001u);
  EXPECT_EQ(run_.register_log(), "0x200F0074: 1 -> 0\n0x200F0FFC: 0 -> a5a50001\n");
}

TEST_F(HiToolsTest, RegistersOutsideMemoryAreRefused) {
  files_kept_ = 1;
  EXPECT_EQ(message_of([] { EXPECT_EQ(himm(0xFFFFFFFC, 1), -1); }), "himm:memmap error.\n");
  EXPECT_EQ(message_of([] { EXPECT_EQ(himd(0xFFFFFFFC), 0xFFFFFFFF); }), "himd:memmap error.\n");
  EXPECT_EQ(run_.register_log(), "");
}

TEST_F(HiToolsTest, I2cWidths) {
  const struct {
    u32 bus, reg_width, data_width;
    i32 written, value;
    const char* transfers;
  } cases[] = {
      {0, 1, 2, 0, 0x1234, "0:1a write cd = 1234\n0:1a read cd = 1234\n"},
      {1, 2, 1, 0, 0x34, "1:1a write abcd = 34\n1:1a read abcd = 34\n"},
      // What fits into the transfer buffer is left to the driver to refuse.
      {1, 3, 1, 0, -1, "1:1a write of 4 bytes\n1:1a read of 3 bytes\n"},
      {2, 1, 4, -1, 0x34, "2:1a read cd = 34\n"},
      {2, 0xFFFFFFFF, 5, -1, -1, ""},
  };
  sim::set_i2c_register(2, 0x1A, 0xCD, 0x34);
  std::string log;
  for (const auto& c : cases) {
    EXPECT_EQ(i2c_write(c.bus, 0x1A, 0xABCD, 0x1234, c.reg_width, c.data_width), c.written);
    EXPECT_EQ(i2c_read(c.bus, 0x1A, 0xABCD, c.reg_width, c.data_width), c.value);
    EXPECT_EQ(run_.i2c_log(), log += c.transfers);
  }
}

TEST_F(HiToolsTest, I2cFailures) {
  const struct {
    const char* fault;
    i32 read;
    const char* read_text;
    i32 write;
    const char* write_text;
  } cases[] = {
      {"fail I2C_SLAVE 1-2", 0, "", 0, ""},
      {"fail I2C_REG_WIDTH 1-2", -1, "CMD_SET_REG_WIDTH error!\n", 0, ""},
      {"fail I2C_DATA_WIDTH 1-2", -1, "CMD_SET_DATA_WIDTH error!\n", -1, "I2C_WRITE error!\n"},
      {"fail I2C_READ 1", -1, "CMD_I2C_READ error!\n", 0, ""},
  };
  sim::NodeHost faults;
  for (const auto& c : cases) {
    ASSERT_TRUE(faults.script("clear") && faults.script(c.fault));
    SCOPED_TRACE(c.fault);
    EXPECT_EQ(message_of([&] { EXPECT_EQ(i2c_read(0, 1, 2, 1, 1), c.read); }), c.read_text);
    EXPECT_EQ(message_of([&] { EXPECT_EQ(i2c_write(0, 1, 3, 0x55, 1, 1), c.write); }), c.write_text);
  }
  // The bytes are written whatever the requests' answers; a refused device address leaves address 0.
  EXPECT_EQ(run_.i2c_log(),
            "0:00 read 02 = 00\n0:00 write 03 = 55\n"
            "0:01 write 03 = 55\n0:01 write 03 = 55\n0:01 write 03 = 55\n");
}

TEST_F(HiToolsTest, I2cBusesThatAreNotThere) {
  EXPECT_EQ(i2c_read(3, 1, 2, 1, 1), -1);
  EXPECT_EQ(i2c_write(0xFFFFFFFF, 1, 2, 3, 1, 1), -1);
  std::filesystem::remove(run_.path("/dev/i2c-1"));
  EXPECT_EQ(message_of([] { EXPECT_EQ(i2c_read(1, 1, 2, 1, 1), -1); }), "Open i2c dev error!\n");
  EXPECT_EQ(message_of([] { EXPECT_EQ(i2c_write(1, 1, 2, 3, 1, 1), -1); }), "Open i2c dev error!\n");
}

TEST_F(HiToolsTest, FilesAreMapped) {
  constexpr char kPath[] = "/opt/params/map";
  umask(022);
  // A length of 0 cannot be mapped, but the failure value counts as a mapping. The file has been made.
  void* mapping = nullptr;
  EXPECT_EQ(
      message_of([&] { mapping = mmapfile(kPath, 0); }),
      "Memory Map OK. Map File: /opt/params/map, length:0, addr:0x" + std::string(sizeof(long) * 2, 'F'));
  EXPECT_EQ(mapping, MAP_FAILED);
  struct stat info;
  ASSERT_EQ(stat(run_.path(kPath).c_str(), &info), 0);
  EXPECT_EQ(info.st_mode & 07777, 0750u);
  EXPECT_EQ(info.st_size, 0);

  run_.write_file(kPath, "shared with others");
  mapping = mmapfile(kPath, 16);
  ASSERT_NE(mapping, MAP_FAILED);
  std::memcpy(mapping, "SHARED", 6);
  const void* view = mmapfile_r(kPath, 16, 0);
  ASSERT_NE(view, MAP_FAILED);
  EXPECT_EQ(std::memcmp(view, "SHARED with", 11), 0);
  EXPECT_EQ(run_.read_file(kPath), "SHARED with others");
  EXPECT_EQ(mmapfile("/opt/none/map", 16), nullptr);
  EXPECT_EQ(mmapfile_r("/opt/none/map", 16, 0), nullptr);
  EXPECT_EQ(mmapfile(nullptr, 16), nullptr);
  EXPECT_EQ(mmapfile_r(nullptr, 16, 0), nullptr);
}

}  // namespace
