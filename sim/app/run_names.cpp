#include "sim/app/run_names.h"

#include <sys/shm.h>

#include <cstdio>
#include <fstream>
#include <vector>

#include "elog/elog_record.h"
#include "ipc/msg_records.h"
#include "sim/media/media.h"
#include "sim/seam/run.h"
#include "vencbuf/enc_frame.h"

namespace sim {

namespace {

struct Name {
  const char* name;
  std::string value;
};

std::string hexadecimal(u32 number) {
  char text[16];
  std::snprintf(text, sizeof(text), "0x%x", number);
  return text;
}
std::string key(key_t camera_key) { return hexadecimal(static_cast<u32>(run_key(camera_key))); }

std::vector<Name> run_names() {
  return {{"PARAMETER_KEY", key(kFileMsgKey)},
          {"CONTROL_KEY", key(kVeltoMsgKey)},
          {"SYSTEM_KEY", key(kSysMsgKey)},
          {"LOG_KEY", key(kElogQueueKey)},
          {"RING_KEY", key(VENC_RING_KEY)},
          {"FRAME_READY", run_semaphore(kFrameReadySemaphore).c_str()},
          {"SLOT_RELEASED", run_semaphore(kSlotReleasedSemaphore).c_str()},
          {"POOL_ADDRESS", hexadecimal(Media::pool_address())},
          {"POOL_SIZE", hexadecimal(Media::pool_size())}};
}

}  // namespace

bool tell_run_names(const std::string& path) {
  std::ofstream file(path);
  std::printf("keys and names of this run, also in %s:\n", path.c_str());
  for (int column = 0; const Name& name : run_names()) {
    file << name.name << '=' << name.value << '\n';
    std::printf("  %s=%s%s", name.name, name.value.c_str(), ++column % 3 ? "" : "\n");
  }
  if (file.flush()) return true;
  std::perror(path.c_str());
  return false;
}

bool server_exists() { return shmget(run_key(kFileMsgKey), 0, 0) >= 0; }

}  // namespace sim
