// The command line of camera_sim.
#pragma once

#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "platform/uvc_formats.h"
#include "sim/app/fault_script.h"
#include "sim/app/parties.h"
#include "sim/app/text.h"

namespace sim {

enum class StreamFormat;  // sim/host/frame_check.h

struct Options {
  std::optional<StreamFormat> format;
  std::optional<FrameSize> size;
  u32 rate = 30;         ///< frames per second
  double duration = 4;   ///< seconds a stream
  std::string source;    ///< a video or picture file for the scene; empty: the test card
  bool yuv422 = false;   ///< VPSS pictures in 4:2:2
  u32 extra_stride = 0;  ///< bytes by which their rows are longer than the picture
  std::vector<Fault> faults;
  Cast cast;
  std::string to;                     ///< file for the payloads of the one stream; "-": standard output
  std::vector<std::string> results;   ///< files for what was found
  bool attach = false;                ///< the host is this PC's own, or with `listen`, another's
  std::optional<std::string> listen;  ///< address to listen at
  std::string lent_encoder;           ///< memory of an encoder that another machine lends
  std::string replay;                 ///< a capture whose class requests are repeated
  std::string print_level;            ///< of the service; empty: its own
  std::optional<u8> log_level;        ///< the collector prints up to this level
  std::string out = "out";            ///< folder for pictures and logs
  std::string service;                ///< empty: uvc_gadget_sim beside this program
  bool wait_in_kernel = false;        ///< the service is started so
  bool paced = false;
  bool verbose = false;
  bool stay = false;
  bool control = false;
  bool prompt = false;
  bool web = false;
  u16 port = 0;  ///< of the page; 0: a free one

  /// Returns why a fault cannot be played; empty if it can.
  Complaint cannot_play(const Fault& fault) const;
  /// One stream was asked for instead of the plan.
  bool one_stream() const { return format || size || stay || !to.empty(); }
  /// What is to be done: the first table, the second one. The steps of the second need the scene in the
  /// pictures, hence the simulator's encoder, and show what its server received.
  bool streams() const { return !prompt && !web && !attach && replay.empty() && (one_stream() || !control); }
  bool controls() const {
    return !prompt && !web && !attach &&
           (control || (!one_stream() && replay.empty() && cast.encoder && cast.server));
  }
};

/// "mjpeg", in capitals or not.
std::optional<StreamFormat> parse_format(std::string_view text);
/// Frames per second, 1 to 60.
std::optional<u32> parse_rate(std::string_view text);
/// "1280x720".
std::optional<FrameSize> parse_size(std::string_view text);

/// The options; or nothing, with the exit status, once help, the list or an error has been printed.
std::optional<Options> parse_options(int argc, char** argv, int& exit_status);

}  // namespace sim
