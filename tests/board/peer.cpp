// What stands around the service on the emulated board: the system server, on the camera's own keys, the
// memory of the media library's stand-in, and the USB cable. Plugs in as soon as the service listens, then
// serves for ever.
#include <fcntl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstdio>
#include <cstring>
#include <string>

#include "sim/physical_memory.h"
#include "sim/run.h"
#include "sim/server.h"

namespace sim {
key_t run_key(key_t key) { return key; }
}  // namespace sim

static bool put(const char* path, const std::string& text) {
  const int fd = open(path, O_WRONLY | O_CLOEXEC);
  const bool written = fd >= 0 && write(fd, text.data(), text.size()) > 0;
  if (fd >= 0) close(fd);
  return written;
}

/// A socket pair between the kernel's virtual device controller and its virtual host. The controller refuses
/// its end until the service has subscribed to the node's events.
static void plug_in() {
  constexpr char kDevice[] = "/sys/devices/platform/usbip-vudc.0/usbip_sockfd";
  constexpr char kHost[] = "/sys/devices/platform/vhci_hcd.0/attach";
  int cable[2];
  if (socketpair(AF_UNIX, SOCK_STREAM, 0, cable) < 0) return std::perror("socketpair");
  while (!put(kDevice, std::to_string(cable[0]))) usleep(200'000);
  const std::string port0_high_speed = "0 " + std::to_string(cable[1]) + " 65538 3";
  if (!put(kHost, port0_high_speed)) std::perror(kHost);
}

int main() {
  const sim::PhysicalMemory memory;
  const sim::Server server({.pool_address = sim::kAvPoolBase, .pool_size = sim::kAvPoolSize});
  plug_in();
  for (;;) pause();
}
