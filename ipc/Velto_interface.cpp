#include "ipc/Velto_interface.h"

#include <cstring>

#include "common/wait_limit.h"
#include "ipc/VeltoDrvMsg.h"
#include "platform/hi_mpi.h"
#include "support/print.h"

namespace {

constexpr char kPrintFile[] = "Velto_interface.c";

struct Pool {
  u8* address = nullptr;
  u32 size = 0;
};
Pool pool;

constexpr std::chrono::seconds kMemoryLimit{5};

constexpr i32 kStreamTypes = 6;
constexpr i32 kCacheSlot = 256;
u8 block_cache[kStreamTypes][kCacheSlot];

// The stream types that operations 0 and 3 refuse.
bool unserved_type(i32 stream_type) { return stream_type == 4 || stream_type == 5; }

bool in_pool(const VeltoFrame& frame) {
  return frame.pool_offset >= 0 && frame.size >= 0 && i64{frame.pool_offset} + frame.size <= pool.size;
}

void fill_info(AvData& result, const VeltoFrame& frame) {
  result.serial = frame.serial;
  result.size = frame.size;
  result.word2 = frame.word36;
  result.word3 = frame.word40;
  result.word5 = frame.word56;
}

i32 fill_short(AvData& result, const VeltoFrame& frame) {
  if (!in_pool(frame)) return kAvNotAvailable;
  fill_info(result, frame);
  result.word7 = frame.word64;
  result.word8 = frame.word68;
  result.pointer = pool.address + frame.pool_offset;
  return kAvOk;
}

i32 fill(AvData& result, const VeltoFrame& frame) {
  if (fill_short(result, frame) != kAvOk) return kAvNotAvailable;
  result.word4 = frame.word52;
  result.word6 = frame.word48;
  return kAvOk;
}

// The operations: `frame` holds the wanted serial and stream type.

i32 get_block(VeltoFrame& frame, AvData& result) {
  const i32 type = frame.stream_type;
  if (unserved_type(type) || type < 0 || type >= kStreamTypes) return kAvBadArgument;
  const i32 size = VeltoGetBlock(frame);
  if (size > 0) {
    if (size > kCacheSlot || !in_pool(frame)) return kAvNotAvailable;
    std::memcpy(block_cache[type], pool.address + frame.pool_offset, static_cast<std::size_t>(size));
  }
  result.pointer = block_cache[type];
  result.size = size;
  return kAvOk;
}

i32 do_nothing(VeltoFrame&, AvData&) { return kAvOk; }

i32 get_by_serial(VeltoFrame& frame, AvData& result) {
  if (frame.serial < 0) return kAvBadArgument;
  switch (const i32 status = VeltoGetFrame5(frame)) {
    case kAvOk:
      return fill(result, frame);
    case kAvStatus98:
      return kAvFailed;
    case kAvNotAvailable:
    case kAvStatus99:
    case kAvBadArgument:
      return status;
    default:
      PRINT_ERROR("RET_UNKNOWN_ERROR\n");
      return kAvUnknownStatus;
  }
}

i32 get_by_type(VeltoFrame& frame, AvData& result) {
  const i32 status = VeltoGetFrame9(frame);
  if (unserved_type(frame.stream_type))
    // Deliberate: refused only after the server was asked.
    return kAvBadArgument;
  if (status == -1) return kAvFailed;
  if (status == -2) return kAvServerFailed;
  return fill(result, frame);
}

i32 tell_serial(VeltoFrame& frame, AvData&) {
  if (frame.serial < 0) return kAvBadArgument;
  VeltoSend6(frame);
  return kAvOk;
}

i32 get_short(VeltoFrame& frame, AvData& result) {
  if (frame.serial != -1) return kAvBadArgument;
  VeltoGetFrame3(frame);
  return fill_short(result, frame);
}

i32 get_info(VeltoFrame& frame, AvData& result) {
  if (frame.serial != -1) return kAvBadArgument;
  VeltoGetFrame8(frame);
  fill_info(result, frame);
  return kAvOk;
}

i32 get_frame(VeltoFrame& frame, AvData& result) {
  const i32 wanted = frame.serial;
  if (const i32 status = VeltoGetFrame4(frame); status != 0) return status;
  if (wanted != -1 && frame.serial != wanted) {
    PRINT_ERROR("AV_OP_GET_FRAME Request error! %d  %d\n", wanted, frame.serial);
    return kAvNotAvailable;
  }
  return fill(result, frame);
}

using Operation = i32 (*)(VeltoFrame& frame, AvData& result);
constexpr Operation kOperations[] = {get_block,   do_nothing, get_by_serial, get_by_type,
                                     tell_serial, get_short,  get_info,      get_frame};
static_assert(std::size(kOperations) == AV_OP_GET_FRAME + 1);

}  // namespace

void* CMEM_MMAP(u32 phys_addr, u32 size) {
  void* address = HI_MPI_SYS_MmapCache(phys_addr, size);
  if (!address)
    PRINT_ERROR("allocPool: Failed to mmap buffer at physical address %#lx\n",
                static_cast<unsigned long>(phys_addr));
  return address;
}

namespace {

// A server that took the question and then died never answers; its successor does when it is asked again.
void ask_for_memory(VeltoMemory& memory) {
  const WaitLimit limit(WaitLimit::Clock::now() + kMemoryLimit);
  VeltoGetMemory(memory);
}

}  // namespace

i32 func_get_mem(void*) {
  VeltoMemory memory;
  ask_for_memory(memory);
  PRINT_INFO("func_get_mem get meminfo %lx\n", static_cast<unsigned long>(memory.address));
  if (memory.address == 0) {
    PRINT_ERROR("Error: Memory return Invalid\n");
    return -1;
  }
  if (pool.address || pool.size) {
    PRINT_ERROR("Memory map have been done before\n");
    return 0;
  }
  PRINT_INFO("CMEM_MMAP %lx %ld\n", static_cast<unsigned long>(memory.address),
             static_cast<long>(memory.size));
  pool.address = static_cast<u8*>(CMEM_MMAP(memory.address, memory.size));
  if (!pool.address) return -1;
  pool.size = memory.size;
  return 0;
}

void VeltoInterfaceExit() {
  if (pool.size != 0)
    HI_MPI_SYS_Munmap(pool.address, pool.size);
  else
    PRINT_ERROR("Error: Maping size is zero!!\n");
  pool = {};
  VeltoDrvExit();
}

i32 GetAVData(i32 stream_type, i32 operation, i32 serial, AvData& result) {
  if (!pool.address) return kAvNotMapped;
  if (operation < 0 || operation > AV_OP_GET_FRAME) {
    PRINT_DEBUG("Command field = %d\n", operation);
    return kAvUnknownOperation;
  }
  VeltoFrame frame{};
  frame.serial = serial;
  frame.stream_type = stream_type;
  return kOperations[operation](frame, result);
}
