// The system server's AV memory pool, mapped into this process, and GetAVData, which finds frames and stream
// data blocks in it through the control-message channel (VeltoDrvMsg.h). The pool is mapped before the
// control thread starts and unmapped after it has ended. The block cache has no lock.
#pragma once

#include "common/bytes.h"

/// Asks the server where the pool is and maps it, once per process. Returns 0, or prints an error and returns
/// -1. The argument is not used.
i32 func_get_mem(void* unused);
/// Maps a physical range with caching. Returns the address, or prints an error and returns null.
void* CMEM_MMAP(u32 phys_addr, u32 size);
/// Unmaps the pool and disconnects from the control-message channel.
void VeltoInterfaceExit();

enum AvOperation : i32 {
  AV_OP_GET_BLOCK = 0,      ///< copies the stream's data block into this process; not for types 4 and 5
  AV_OP_NOTHING = 1,        ///< does nothing, successfully
  AV_OP_GET_BY_SERIAL = 2,  ///< the frame with this serial
  AV_OP_GET_BY_TYPE = 3,    ///< not for types 4 and 5
  AV_OP_TELL_SERIAL = 4,    ///< one-way: sends serial and stream type to the server
  AV_OP_GET_SHORT = 5,      ///< serial must be -1; leaves word4 and word6 alone
  AV_OP_GET_INFO = 6,       ///< serial must be -1; sets serial, size, word2, word3 and word5 only
  AV_OP_GET_FRAME = 7,      ///< the frame with this serial, or any frame for -1
};

enum AvResult : i32 {
  kAvOk = 0,
  kAvFailed = -1,
  kAvNotAvailable = -97,  ///< also if the server's answer points outside the pool or does not fit the cache
  kAvStatus98 = -98,      ///< sent by the server only; becomes kAvFailed
  kAvStatus99 = -99,
  kAvBadArgument = -100,
  kAvServerFailed = -103,
  kAvNotMapped = -104,
  kAvUnknownOperation = -200,
  kAvUnknownStatus = -400,
};

/// What GetAVData found. The words are attributes from the server, passed on unchanged.
struct AvData {
  i32 serial;
  i32 size;  ///< bytes at `pointer`
  i32 word2, word3, word4, word5, word6, word7, word8;
  /// Into the pool, or into this process's block cache: valid until the next block of the same type.
  void* pointer;
};
#if defined(__arm__)
static_assert(sizeof(AvData) == 40);
#endif

/// Performs one AvOperation for a stream type. Returns an AvResult, or for AV_OP_GET_FRAME the server's
/// own non-zero status.
i32 GetAVData(i32 stream_type, i32 operation, i32 serial, AvData& result);
