// Run: one simulated camera's private surroundings on a PC. The camera's fixed paths lie under a root folder
// of the run, its System V keys and semaphore names are moved by the run's own number, so that runs never
// meet and nothing of the PC itself is touched.
#pragma once

#include <sys/types.h>

#include <string>
#include <string_view>

#include "common/bytes.h"

namespace sim {

/// Creates a run and makes it the current one of this process and of the children that it starts (through
/// the environment). One at a time per process. The destructor removes the root folder, the camera's
/// queues and segments, and semaphores; in a forked child it does nothing. What runs of dead processes left
/// behind goes as well.
class Run {
 public:
  Run();
  ~Run();
  Run(const Run&) = delete;

  /// Where a fixed path of the camera (such as "/opt/params/print.conf") lies on this PC.
  std::string path(std::string_view camera_path) const;
  /// Writes a file of the camera, with its folders.
  void write_file(std::string_view camera_path, std::string_view content) const;
  /// Reads a file of the camera; empty when there is none.
  std::string read_file(std::string_view camera_path) const;
  /// The shell commands that the service has run so far, one a line, as the service wrote them.
  std::string shell_log() const;

  /// The 32-bit register at a physical address, as the service last left it; a multiple of 4.
  u32 register_value(u32 addr) const;
  void set_register(u32 addr, u32 value) const;
  /// Registers that changed while the service had them mapped, a line for each word at each unmapping:
  /// "0x20240010: 0 -> 4" (values in hex).
  std::string register_log() const;
  /// Transfers on the I2C buses, one a line: "1:34 read 0100 = 00ab" (bus, device, register, value, in hex).
  std::string i2c_log() const;
};

/// Makes the machine itself the current run: keys, names and paths stay the camera's. For programs on a
/// machine that is the camera's own, such as a guest.
void use_whole_machine();

/// What a System V key or a semaphore name of the camera becomes in the current run. Keys that are equal
/// modulo 509 meet; the camera's five are not.
key_t run_key(key_t key);
/// Not a std::string: the service opens semaphores while it streams, when its heap must rest.
struct SemaphoreName {
  char text[32];
  const char* c_str() const { return text; }
};
SemaphoreName run_semaphore(const char* name);
/// Removes a queue and a segment of the camera, where they exist, from the current run. Whoever has them
/// keeps what it has attached and fails at the next message.
void remove_objects(key_t key);
/// The current run's root folder. Ends the program with a message when there is no current run.
const std::string& run_root();

/// Divides every sys::usleep of this process, so that a test need not wait for long timeouts; what comes to
/// less than 1 us does not sleep at all. 1 at start.
void set_sleep_divisor(unsigned divisor);
/// Calls of sys::usleep in this process so far, and the microseconds asked for.
struct SleepCount {
  unsigned long calls;
  unsigned long microseconds;
};
SleepCount sleep_count();

/// A register of a device on a simulated I2C bus of this process. Registers hold 0 at start.
u16 i2c_register(u32 bus, u32 device, u16 address);
void set_i2c_register(u32 bus, u32 device, u16 address, u16 value);

}  // namespace sim
