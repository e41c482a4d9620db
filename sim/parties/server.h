// The system server of the simulated camera: parameter segment and the three message channels.
#pragma once

#include <chrono>
#include <cstdio>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "ipc/msg_records.h"
#include "ipc/sys_info.h"
#include "ipc/velto_commands.h"
#include "sim/parties/camera_head.h"

namespace sim {

struct ServerOptions {
  u32 usb_port = 0;
  bool ready = true;         ///< write the ready markers at start
  bool cache_valid = false;  ///< mark the camera-value cache valid
  u32 pool_address = 0;      ///< what command 1 answers; address 0: refuses
  u32 pool_size = 0;
  CameraHead* head = nullptr;  ///< what VISCA frames and pan-tilt commands move; null: one of its own
};

enum class ServerFault;

/// Runs a thread per channel from construction to destruction.
class Server {
 public:
  explicit Server(const ServerOptions& options);
  ~Server();

  /// Called for every command 10, on the control channel's thread. Set before the service starts.
  void on_encoder_settings(std::function<void(const EncoderSettingsMessage&)> handler);
  /// `time` is how slow or how late the server is; without it 300 ms and 6 s.
  void set_fault(ServerFault fault, std::optional<std::chrono::milliseconds> time = {});

  EncoderSettingsMessage encoder_settings() const;  ///< the last that came
  u32 request_flag(int word) const;  ///< of the request-flag area; word 0 is the USB disconnect word
  /// Everything received since line `from`, a line each, such as "velto 10 O 2 1 1920 1080 30 ..." or, with
  /// the reply, "sys 39 81 01 04 A4 00 00 00 0F FF -> 90 41 FF".
  std::vector<std::string> received(std::size_t from = 0) const;
  /// From now on, also writes these lines to `log` as they come. The caller keeps the file open.
  void log_received(std::FILE* log);
  /// Requests that made no sense: wrong lengths, unknown commands, places outside the sender's slot. Those
  /// that name a client are answered with a failure all the same.
  unsigned long refused() const;

 private:
  struct Impl;
  std::unique_ptr<Impl> impl_;
};

}  // namespace sim
