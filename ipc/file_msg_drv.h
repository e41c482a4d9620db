// Client of the system-parameter channel: attaches the parameter segment (sys_info.h), hands out pointers
// into it, and informs the system server of what this process has changed there. A restarted server may
// remove its segment and create another; every call checks for that, at most every 500 ms, and then uses the
// new one. Fetch a pointer where it is used, which is cheap, rather than keep it: it remains valid until the
// segment has been replaced twice, but points to the former segment from the first time on. The server may
// write to the segment at any time. Any thread may call once InitFileMsgDrv has returned. The lock covers the
// transactions with the server; writes to the segment are not locked.
#pragma once

#include <sys/types.h>

#include "common/bytes.h"
#include "ipc/sys_info.h"

/// Opens the queue and the segment with this key. Returns 0, or prints an error and returns -1; a segment
/// too small for the parameter record is an error, too. Deliberate: without the segment the queue is
/// removed, although the server uses it as well; and a failed start keeps the freed lock, so a process
/// cannot try again.
i32 InitFileMsgDrv(key_t key, i32 process_id);
/// Detaches the segment and frees the lock, for good; no other thread may be using the driver. Deliberate:
/// neither pointer is cleared.
void CleanupFileMsgDrv();

/// Returns the parameter record once the server has marked it valid, which it waits for at most 1000 times 10
/// ms. Prints an error and returns null if that does not happen; returns null if nothing is attached.
SysInfo* GetSysInfo();
/// Returns the system-state area, which begins with SYSINFO_MAGIC once it is valid. With `wait`, waits for
/// that like GetSysInfo. Deliberate: if nothing is attached, the result is null without `wait`, but the bare
/// offset 2640 with it.
void* GetSysState(bool wait);
/// Returns the camera-value cache, or null if nothing is attached.
CameraCache* GetSysCameraCache();
/// Returns the request flags, words that clients set to 1, or null if nothing is attached.
u32* GetSysRequestFlags();

/// Informs the server that a section of the record has changed and waits for its answer. Returns 0, or prints
/// an error and returns -1. After three failures the queue is opened again.
i32 SetSysInfo(i32 section);
/// Make the server reset the parameters, or save them as defaults. Return 0, or print an error and return -1.
i32 fResetSysInfo();
i32 fSaveSysDefInfo();

/// Each of these writes its field and calls SetSysInfo for its section. Returns -1 at once if
/// nothing is attached.
i32 SetSysWord240(u32 value);
i32 SetSysMac(const char* text);  ///< "%02x:%02x:%02x:%02x:%02x:%02x"; missing parts become 0
i32 SetSysWord252(u32 value);
i32 SetSysWord256(u32 value);
i32 SetSysWord260(u32 value);
i32 SetSysByte278(u8 value);
i32 SetSysHalf268(u16 value);
i32 SetSysHalf272(u16 value);
i32 SetSysHalf266(u16 value);
i32 SetSysListenPort(u16 port);  ///< rewrites the "listen" lines of /etc/srs.conf first
/// Rewrites the "server.port =" lines of the web server's configuration first.
i32 SetSysWebPort(u16 port);
i32 SetSysHalf274(u16 value);
i32 SetSysHalf276(u16 value);
i32 SetSysByte279(u8 value);
/// Returns -1 if `index` is not 0..3. Equal contents are neither written nor announced; the result is then 0.
i32 SetSysRecord52(SysRecord52 record, i32 index);
i32 SetSysRecord28(SysRecord28 record);

/// Replaces every line of a file that begins with `prefix` by `replacement` (which brings its own line end),
/// through a copy "<path>.bak". A line of more than 511 bytes counts as several. Returns 0, or -1 if a file
/// cannot be opened, the copy cannot be written completely, or the path has more than 123 characters; the
/// file is then unchanged. Deliberate: if only the copy cannot be opened, the file stays open.
i32 ReplaceConfigLine(const char* path, const char* prefix, const char* replacement);

void SetFileMsgQueue(i32 queue);
/// Sends a record that holds only its destination, without lock or reply.
void SendFileMsgNotice();
