// Client of the system-parameter channel: attaches the parameter segment (sys_info.h), hands out pointers
// into it, and tells the system server what this process has changed there. A server that starts anew may
// remove its segment and make another: every call looks for that, at most every 500 ms, and uses the new one.
// So ask for a pointer where it is used, which is cheap, rather than keep it: it stays good until the segment
// has been replaced twice, but leads to the former one from the first time on. The server may write behind it
// at any time. Any thread may call once InitFileMsgDrv has returned: the lock covers the transactions with
// the server, the writes into the segment have none.
#pragma once

#include <sys/types.h>

#include "common/bytes.h"
#include "ipc/sys_info.h"

/// Opens the queue and the segment with this key. 0, or -1, reported; also when the segment is too small for
/// the parameter record. Deliberate: without the segment the queue is removed, though it is the server's too;
/// and a failed start leaves the freed lock behind, so there is no second try in a process.
i32 InitFileMsgDrv(key_t key, i32 process_id);
/// Detaches the segment and frees the lock, for good; no other thread may use the driver meanwhile.
/// Deliberate: neither pointer is cleared.
void CleanupFileMsgDrv();

/// The parameter record once the server has marked it valid: waits at most 1000 times 10 ms. Null when it
/// does not (reported) or nothing is attached.
SysInfo* GetSysInfo();
/// The system-state area, which begins with SYSINFO_MAGIC once it is valid; with `wait`, as GetSysInfo.
/// Deliberate: when nothing is attached, null without `wait`, but the bare offset 2640 with it.
void* GetSysState(bool wait);
/// The camera-value cache; null when nothing is attached.
CameraCache* GetSysCameraCache();
/// The request flags, words that clients set to 1; null when nothing is attached.
u32* GetSysRequestFlags();

/// Tells the server that a section of the record has changed and waits for its answer. 0, or -1, reported.
/// After three failures the queue is opened anew.
i32 SetSysInfo(i32 section);
/// Has the server reset the parameters, or save them as defaults. 0, or -1, reported.
i32 fResetSysInfo();
i32 fSaveSysDefInfo();

/// Each writes its field and calls SetSysInfo for its section; -1 at once when nothing is attached.
i32 SetSysWord240(u32 value);
i32 SetSysMac(const char* text);  ///< "%02x:%02x:%02x:%02x:%02x:%02x"; parts that are missing become 0
i32 SetSysWord252(u32 value);
i32 SetSysWord256(u32 value);
i32 SetSysWord260(u32 value);
i32 SetSysByte278(u8 value);
i32 SetSysHalf268(u16 value);
i32 SetSysHalf272(u16 value);
i32 SetSysHalf266(u16 value);
i32 SetSysListenPort(u16 port);  ///< rewrites the "listen" lines of /etc/srs.conf first
i32 SetSysWebPort(u16 port);     ///< the "server.port =" lines of the web server's configuration
i32 SetSysHalf274(u16 value);
i32 SetSysHalf276(u16 value);
i32 SetSysByte279(u8 value);
/// -1 for an index outside 0..3. Equal contents are neither written nor told: 0.
i32 SetSysRecord52(SysRecord52 record, i32 index);
i32 SetSysRecord28(SysRecord28 record);

/// Replaces every line of a file that begins with `prefix` by `replacement` (which brings its own line end),
/// through a copy "<path>.bak". A line of more than 511 bytes counts as several. 0; or -1 when a file cannot
/// be opened, the copy cannot be written whole, or the path has more than 123 characters: the file is then as
/// it was. Deliberate: when only the copy cannot be opened, the file stays open.
i32 ReplaceConfigLine(const char* path, const char* prefix, const char* replacement);

void SetFileMsgQueue(i32 queue);
/// Sends a record of nothing but its destination, without lock or reply.
void SendFileMsgNotice();
