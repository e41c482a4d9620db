// The system server's AV memory pool, mapped into this process, and GetAVData, which finds frames and stream
// data blocks in it through the control-message channel (VeltoDrvMsg.h). The pool is mapped before the
// control thread starts and unmapped after it has ended; the block cache is not locked.
#pragma once

#include "common/bytes.h"

/// Asks the server where the pool is and maps it, once per process. 0 or -1, reported. The argument is not
/// used.
i32 func_get_mem(void* unused);
/// Maps a physical range with caching. Null, reported, on failure.
void* CMEM_MMAP(u32 phys_addr, u32 size);
/// Unmaps the pool and disconnects from the control-message channel.
void VeltoInterfaceExit();

enum AvOperation : i32 {
  AV_OP_GET_BLOCK = 0,      ///< the stream's data block, copied into this process; not for types 4 and 5
  AV_OP_NOTHING = 1,        ///< 0
  AV_OP_GET_BY_SERIAL = 2,  ///< the frame with this serial
  AV_OP_GET_BY_TYPE = 3,    ///< not for types 4 and 5
  AV_OP_TELL_SERIAL = 4,    ///< one-way: gives the server serial and stream type
  AV_OP_GET_SHORT = 5,      ///< serial must be -1; leaves word4 and word6 alone
  AV_OP_GET_INFO = 6,       ///< serial must be -1; sets serial, size, word2, word3 and word5 only
  AV_OP_GET_FRAME = 7,      ///< the frame with this serial; -1: any
};

enum AvResult : i32 {
  kAvOk = 0,
  kAvFailed = -1,
  kAvNotAvailable = -97,  ///< also: what the server points at does not lie in the pool or fit the cache
  kAvStatus98 = -98,      ///< only the server's: becomes kAvFailed
  kAvStatus99 = -99,
  kAvBadArgument = -100,
  kAvServerFailed = -103,
  kAvNotMapped = -104,
  kAvUnknownOperation = -200,
  kAvUnknownStatus = -400,
};

/// What GetAVData found. The words are attributes that the server gives, as they come.
struct AvData {
  i32 serial;
  i32 size;  ///< bytes at `pointer`
  i32 word2, word3, word4, word5, word6, word7, word8;
  void*
      pointer;  ///< into the pool, or into this process's block cache: good until the next block of the type
};
#if defined(__arm__)
static_assert(sizeof(AvData) == 40);
#endif

/// One AvOperation for a stream type. An AvResult, or with AV_OP_GET_FRAME the server's own non-zero status.
i32 GetAVData(i32 stream_type, i32 operation, i32 serial, AvData& result);
