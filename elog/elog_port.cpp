#include "elog/elog_port.h"

#include <pthread.h>
#include <sys/ipc.h>
#include <sys/msg.h>
#include <sys/time.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstdio>
#include <ctime>
#include <mutex>

#include "elog/elog_record.h"
#include "elog/plugins/file/elog_file.h"
#include "platform/output.h"
#include "platform/sys.h"

namespace {

// The size of the pid and tid texts, including the terminating zero.
constexpr std::size_t kInfoSize = 10;
constexpr std::size_t kSecondSize = sizeof("2024-01-05 08:03:07") - 1;

std::mutex output_mutex;
thread_local bool lock_is_mine;

bool file_enabled;
bool msgq_enabled;
std::atomic<bool> console_enabled;

// Empty until this process needs it. Without the buffer, every line would cost a system call for getpid().
char pid_info[kInfoSize];

long msgq_type;
key_t msgq_key;
int msgq_id = -1;

void forget_pid() { pid_info[0] = '\0'; }

}  // namespace

int elog_port_init(const ElogFileCfg* file_cfg, const ElogMsgqCfg* msgq_cfg) {
  [[maybe_unused]] static const int registered = pthread_atfork(nullptr, nullptr, forget_pid);
  if (file_cfg && file_cfg->enabled) {
    elog_file_init(file_cfg);
    file_enabled = true;
  }
  if (msgq_cfg && msgq_cfg->enabled) {
    elog_msgq_init(msgq_cfg);
    msgq_enabled = true;
  }
  return 0;
}

void elog_port_deinit() {
  if (file_enabled) elog_file_deinit();
  if (msgq_enabled) elog_msgq_deinit();
}

void elog_port_output(char* text, std::size_t len) {
  if (console_enabled.load(std::memory_order_relaxed)) output(STDOUT_FILENO, {text, len});
  if (file_enabled) elog_file_write(text, len);
  if (msgq_enabled) elog_msgq_output(text, len);
}

void elog_port_set_console(bool enabled) { console_enabled.store(enabled, std::memory_order_relaxed); }

void elog_port_output_lock() {
  // An assertion may fail, and log, while its thread holds the lock.
  if (lock_is_mine) return;
  output_mutex.lock();
  lock_is_mine = true;
}

void elog_port_output_unlock() {
  if (!lock_is_mine) return;
  lock_is_mine = false;
  output_mutex.unlock();
}

// Deliberate: seconds and microseconds come from two readings of the clock, so a time may combine one second
// with the microseconds of the next.
const char* elog_port_get_time() {
  static char text[32];
  static std::time_t text_second = -1;
  const std::time_t second = std::time(nullptr);
  if (second != text_second) {
    std::tm local{};
    localtime_r(&second, &local);
    std::strftime(text, sizeof(text), "%Y-%m-%d %T", &local);
    text[kSecondSize] = ' ';
    text_second = second;
  }
  timeval now;
  gettimeofday(&now, nullptr);
  auto rest = static_cast<u32>(now.tv_usec);
  for (std::size_t place = kSecondSize + 6; place > kSecondSize; --place, rest /= 10) {
    text[place] = static_cast<char>('0' + rest % 10);
  }
  return text;
}

const char* elog_port_get_p_info() {
  if (pid_info[0] == '\0') std::snprintf(pid_info, sizeof(pid_info), "pid:%04d", getpid());
  return pid_info;
}

const char* elog_port_get_t_info() {
  static char text[kInfoSize];
  std::snprintf(text, sizeof(text), "tid:%04ld", static_cast<long>(pthread_self()));
  return text;
}

int elog_msgq_init(const ElogMsgqCfg* cfg) {
  msgq_type = cfg->msg_type;
  msgq_key = cfg->key;
  msgq_id = sys::msgget(cfg->key, 0);
  if (msgq_id < 0) {
    msgq_id = sys::msgget(cfg->key, IPC_CREAT | 0666);
    output_format(STDOUT_FILENO, "msg queue %d isn't exist\n", cfg->key);
  }
  return 0;
}

namespace {

// Called after a call on the queue failed. Switches to the queue that the collector has created
// since, if any.
bool found_anew() {
  if (errno != EIDRM && errno != EINVAL) return false;
  const int id = sys::msgget(msgq_key, 0);
  if (id >= 0) msgq_id = id;
  return id >= 0;
}

}  // namespace

void elog_msgq_output(char* text, std::size_t len) {
  auto* record = reinterpret_cast<ElogRecord*>(text - sizeof(long) - kElogHeaderSize);
  record->type = msgq_type;
  record->payload.length = static_cast<u32>(len);
  msqid_ds queue;
  if (msgctl(msgq_id, IPC_STAT, &queue) < 0 && !(found_anew() && msgctl(msgq_id, IPC_STAT, &queue) == 0)) {
    output(STDOUT_FILENO, "msgctl error.\n");
    return;
  }
  const std::size_t size = kElogHeaderSize + len;
  if (queue.msg_qbytes < 2 * queue.msg_cbytes || queue.msg_qbytes < queue.msg_cbytes + size) {
    output(STDOUT_FILENO, "msg buffer overflow.\n");
    return;
  }
  // Deliberate: another process may have filled the queue in the meantime. Waiting for the collector under
  // the output lock would stop every thread that logs, so such a line is lost silently.
  const int result = msgsnd(msgq_id, record, size, IPC_NOWAIT);
  if (result < 0 && found_anew()) (void)msgsnd(msgq_id, record, size, IPC_NOWAIT);
}

void elog_msgq_deinit() {}
