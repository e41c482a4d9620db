// qemu-arm writes the message type even if a receive failed. A kernel does not, and the service relies on
// that when it drains a queue into the record that it is about to send. Linked with --wrap=msgrcv.
#include <sys/msg.h>

extern "C" ssize_t __real_msgrcv(int queue, void* record, size_t size, long type, int flags);

extern "C" ssize_t __wrap_msgrcv(int queue, void* record, size_t size, long type, int flags) {
  long& record_type = *static_cast<long*>(record);
  const long before = record_type;
  const ssize_t received = __real_msgrcv(queue, record, size, type, flags);
  if (received < 0) record_type = before;
  return received;
}
