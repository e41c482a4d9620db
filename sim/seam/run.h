// Run: one simulated camera's private surroundings on a PC. The camera's fixed paths are under a root folder
// of the run, and its System V keys and semaphore names are changed by the run's own number, so that runs
// never interfere and nothing of the PC itself is touched.
#pragma once

#include <sys/types.h>

#include <string>
#include <string_view>

#include "common/bytes.h"

namespace sim {

/// Creates a run and makes it the current one of this process and of the children that it starts (through the
/// environment). A process can have one at a time. The destructor removes the root folder, the camera's
/// queues and segments, and its semaphores; in a forked child it does nothing. The constructor also removes
/// what the runs of dead processes left behind.
class Run {
 public:
  Run();
  ~Run();
  Run(const Run&) = delete;

  /// Returns the path on this PC of a fixed path of the camera, such as "/opt/params/print.conf".
  std::string path(std::string_view camera_path) const;
  /// Writes a file of the camera and creates its folders.
  void write_file(std::string_view camera_path, std::string_view content) const;
  /// Reads a file of the camera. Returns an empty text if there is none.
  std::string read_file(std::string_view camera_path) const;
  /// Returns the shell commands that the service has run so far, one per line, as the service wrote them.
  std::string shell_log() const;

  /// Returns the 32-bit register at a physical address, a multiple of 4, as the service last left it.
  u32 register_value(u32 addr) const;
  void set_register(u32 addr, u32 value) const;
  /// Returns the registers that changed while the service had them mapped, a line for each word at each
  /// unmapping: "0x20240010: 0 -> 4" (values in hexadecimal).
  std::string register_log() const;
  /// Returns the transfers on the I2C buses, one per line: "1:34 read 0100 = 00ab" (bus, device, register,
  /// value, in hexadecimal).
  std::string i2c_log() const;
};

/// Removes what the runs of processes that were killed left behind, in all places where runs can be.
void remove_dead_runs();

/// Makes the machine itself the current run: keys, names and paths remain the camera's. For programs on a
/// machine that is the camera's own, such as a guest.
void use_whole_machine();

/// Return what a System V key or a semaphore name of the camera becomes in the current run. Keys that are
/// equal modulo 509 collide; the camera's five do not.
key_t run_key(key_t key);
/// Not a std::string, because the service opens semaphores while it streams and must not use the heap then.
struct SemaphoreName {
  char text[32];
  const char* c_str() const { return text; }
};
SemaphoreName run_semaphore(const char* name);
/// Removes a queue and a segment of the camera, if they exist, from the current run. A process that uses them
/// keeps what it has attached and fails at the next message.
void remove_objects(key_t key);
/// Returns the current run's root folder. Ends the program with a message if there is no current run.
const std::string& run_root();

/// Divides every sys::usleep of this process, so that a test need not wait for long timeouts. A result of
/// less than 1 us does not sleep at all. The divisor is 1 at the start.
void set_sleep_divisor(unsigned divisor);
/// How often this process has called sys::usleep so far, and for how many microseconds.
struct SleepCount {
  unsigned long calls;
  unsigned long microseconds;
};
SleepCount sleep_count();

/// From now on, a look for an event that finds none costs a system call, as on the camera.
void make_empty_polls_calls();

/// Returns a register of a device on a simulated I2C bus of this process. Registers are 0 at the start.
u16 i2c_register(u32 bus, u32 device, u16 address);
void set_i2c_register(u32 bus, u32 device, u16 address, u16 value);

}  // namespace sim
