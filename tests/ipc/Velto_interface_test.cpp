#include "ipc/Velto_interface.h"

#include <gtest/gtest.h>

#include <numeric>
#include <vector>

#include "ipc/VeltoDrvMsg.h"
#include "platform/hi_mpi.h"
#include "tests/ipc/ipc_peer.h"

namespace {
std::vector<u8> memory(8192);  // what the media library maps
std::string media_log;
}  // namespace

void* HI_MPI_SYS_MmapCache(u32 phys_addr, u32 size) {
  media_log += "map " + std::to_string(phys_addr) + ' ' + std::to_string(size) + '\n';
  return size == 0 ? nullptr : memory.data();
}
i32 HI_MPI_SYS_Munmap(void* address, u32 size) {
  media_log += "unmap " + std::to_string(static_cast<u8*>(address) - memory.data()) + ' ' +
               std::to_string(size) + '\n';
  return 0;
}

namespace {

class VeltoInterface : public testing::Test {
 protected:
  VeltoInterface() { VeltoDrvInit(kVeltoProcess); }

  i32 get_mem(i32 status, u32 address, u32 size) {
    i32 result = 1;
    const std::string sent = peer.serve([&] { result = func_get_mem(nullptr); },
                                        [&](VeltoMsgBuf& reply) {
                                          reply.ret = status;
                                          put_le32(reply.payload + kVeltoMemoryAddress, address);
                                          put_le32(reply.payload + kVeltoMemorySize, size);
                                        });
    EXPECT_EQ(sent, "4:01000000 8:03000000");
    return result;
  }

  sim::Run run;
  VeltoPeer peer{kVeltoMsgKey};
};

TEST_F(VeltoInterface, MapsThePoolOnceAndUnmapsIt) {
  EXPECT_EQ(get_mem(1, 0x88000000, 4096), -1);
  EXPECT_EQ(get_mem(0, 0, 4096), -1);
  EXPECT_EQ(get_mem(0, 0x88000000, 0), -1);
  EXPECT_EQ(get_mem(0, 0x88000000, 4097), 0);
  EXPECT_EQ(get_mem(0, 0x99000000, 1), 0);
  VeltoInterfaceExit();
  VeltoInterfaceExit();
  EXPECT_EQ(media_log, "map 2281701376 0\nmap 2281701376 4097\nunmap 0 4097\n");
  // The exit has disconnected: its id, 1, makes a request its own reply.
  VeltoRequest20(0);
  EXPECT_EQ(peer.waiting(), 0u);
}

// A result as text: the code, then serial, size, words 2 to 8, and where the pointer leads.
constexpr char kAll[] = "0: 28 64 36 40 52 56 48 64 68 pool+512";

std::string failed(i32 code) { return std::to_string(code) + ": -7 -7 -7 -7 -7 -7 -7 -7 -7 none"; }
std::string result_text(i32 code, const AvData& data, const AvData& untouched) {
  std::string text = std::to_string(code) + ":";
  for (const i32 word : {data.serial, data.size, data.word2, data.word3, data.word4, data.word5, data.word6,
                         data.word7, data.word8})
    text += ' ' + std::to_string(word);
  const u8* pointer = static_cast<u8*>(data.pointer);
  if (pointer == untouched.pointer) return text + " none";
  const bool in_pool = pointer >= memory.data() && pointer < memory.data() + memory.size();
  return text + (in_pool ? " pool+" + std::to_string(pointer - memory.data()) : " cache");
}

TEST_F(VeltoInterface, OperationsOfGetAVData) {
  const std::string by_type3 = "4:03000000 8:03000000 44:02000000",
                    by_type8 = "4:08000000 8:03000000 44:02000000";
  const std::string serial5 = "4:05000000 8:03000000 28:1C000000 44:02000000";
  const std::string any9 = "4:09000000 8:03000000 44:02000000", block7 = "4:07000000 8:03000000 44:02000000";
  const std::string frame4 = "4:04000000 8:03000000 28:1C000000 44:02000000";
  // The reply's words at 24 and 32 are the row's, the others hold their own offset. No request means that
  // nothing is sent.
  const struct {
    const char* name;
    i32 type, operation, serial, status, offset, size;
    std::string request, result;
  } rows[] = {
      {"block", 2, 0, 0, 9, 512, 256, block7, "0: -7 256 -7 -7 -7 -7 -7 -7 -7 cache"},
      {"block, empty", 2, 0, 0, 0, 99999, 0, block7, "0: -7 0 -7 -7 -7 -7 -7 -7 -7 cache"},
      {"block past its slot", 2, 0, 0, 0, 512, 257, block7, failed(-97)},
      {"block past the pool", 2, 0, 0, 0, 4096, 2, block7, failed(-97)},
      {"block before the pool", 2, 0, 0, 0, -1, 2, block7, failed(-97)},
      {"nothing", 2, 1, 0, 0, 0, 0, "", failed(0)},
      {"by serial", 2, 2, 28, 0, 512, 64, serial5, kAll},
      {"by serial, whole pool", 2, 2, 28, 0, 0, 4097, serial5, "0: 28 4097 36 40 52 56 48 64 68 pool+0"},
      {"by serial, past the pool", 2, 2, 28, 0, 1, 4097, serial5, failed(-97)},
      {"by serial -98", 2, 2, 28, -98, 512, 64, serial5, failed(-1)},
      {"by serial -99", 2, 2, 28, -99, 512, 64, serial5, failed(-99)},
      {"by serial, other", 2, 2, 28, 5, 512, 64, serial5, failed(-400)},
      {"by serial, no serial", 2, 2, -1, 0, 0, 0, "", failed(-100)},
      {"by type", 2, 3, 0, 0, 512, 64, any9, kAll},
      {"by type -1", 2, 3, 0, -1, 512, 64, any9, failed(-1)},
      {"by type, other", 2, 3, 0, 8, 512, 64, any9, failed(-103)},
      {"by type 4, asked all the same", 4, 3, 0, 0, 512, 64, "4:09000000 8:03000000 44:04000000",
       failed(-100)},
      {"tell serial", 2, 4, 28, 0, 0, 0, "4:06000000 28:1C000000 44:02000000", failed(0)},
      {"tell no serial", 2, 4, -1, 0, 0, 0, "", failed(-100)},
      {"short", 2, 5, -1, 0, 512, 64, by_type3, "0: 28 64 36 40 -7 56 -7 64 68 pool+512"},
      {"short, refused", 2, 5, -1, 3, 512, 64, by_type3, "0: -1 64 36 40 -7 56 -7 64 68 pool+512"},
      {"short, bad offset", 2, 5, -1, 0, 4090, 64, by_type3, failed(-97)},
      {"short with serial", 2, 5, 0, 0, 0, 0, "", failed(-100)},
      {"info", 2, 6, -1, 0, -99, 64, by_type8, "0: 28 64 36 40 -7 56 -7 -7 -7 none"},
      {"info with serial", 2, 6, 0, 0, 0, 0, "", failed(-100)},
      {"frame", 2, 7, 28, 0, 512, 64, frame4, kAll},
      {"any frame", 2, 7, -1, 0, 512, 64, "4:04000000 8:03000000 28:FFFFFFFF 44:02000000", kAll},
      {"wrong frame", 2, 7, 29, 0, 512, 64, "4:04000000 8:03000000 28:1D000000 44:02000000", failed(-97)},
      {"frame, refused", 2, 7, 28, 77, 512, 64, frame4, failed(77)},
      {"unknown", 2, 9, 0, 0, 0, 0, "", failed(-200)},
  };
  ASSERT_EQ(get_mem(0, 0x88000000, 4097), 0);
  for (const auto& row : rows) {
    SCOPED_TRACE(row.name);
    AvData data{-7, -7, -7, -7, -7, -7, -7, -7, -7, this};
    const AvData untouched = data;
    i32 code = 1;
    const auto call = [&] { code = GetAVData(row.type, row.operation, row.serial, data); };
    const auto answer = [&](VeltoMsgBuf& reply) {
      for (i32 at = 24; at < 80; at += 4)
        put_le32(reply.payload + velto_payload_offset(at), static_cast<u32>(at));
      put_le32(reply.payload + velto_payload_offset(24), static_cast<u32>(row.offset));
      put_le32(reply.payload + velto_payload_offset(32), static_cast<u32>(row.size));
      reply.ret = row.status;
    };
    if (row.request.empty())
      call();
    else
      EXPECT_EQ(peer.serve(call, answer), row.request);
    EXPECT_EQ(result_text(code, data, untouched), row.result);
    EXPECT_EQ(peer.waiting(), 0u);
  }
}

TEST_F(VeltoInterface, BlocksAreCopiedAPerTypeSlotEach) {
  AvData data{};
  EXPECT_EQ(GetAVData(0, AV_OP_GET_BLOCK, 0, data), -104);
  ASSERT_EQ(get_mem(0, 0x88000000, 4096), 0);
  std::iota(memory.begin(), memory.end(), u8{0});
  const void* slots[4];
  for (i32 type = 0; type < 4; ++type) {
    peer.serve([&] { EXPECT_EQ(GetAVData(type, AV_OP_GET_BLOCK, 0, data), 0); },
               [&](VeltoMsgBuf& reply) {
                 put_le32(reply.payload + velto_payload_offset(24), static_cast<u32>(type));
                 put_le32(reply.payload + velto_payload_offset(32), 256);
               });
    slots[type] = data.pointer;
  }
  for (int type = 0; type < 4; ++type)
    EXPECT_EQ(std::memcmp(slots[type], memory.data() + type, 256), 0) << type;
  for (const i32 type : {4, 5, 6, -1, INT_MAX, INT_MIN})
    EXPECT_EQ(GetAVData(type, AV_OP_GET_BLOCK, 0, data), -100) << type;
  EXPECT_EQ(peer.waiting(), 0u);
}

}  // namespace
