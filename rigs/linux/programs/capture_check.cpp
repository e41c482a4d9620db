// capture_check: judges what v4l2-ctl captured from the camera (--stream-to-hdr, --verbose) by the
// media process's log of the frames that it made, and writes the payloads without their headers for use
// by another decoder.
#include <algorithm>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <iterator>
#include <string>
#include <string_view>
#include <vector>

#include "common/bytes.h"
#include "sim/host/frame_check.h"
#include "sim/host/usb_host.h"
#include "sim/media/made_frames.h"

namespace {

using sim::StreamFormat;

struct Format {
  std::string_view fourcc;  // as v4l2-ctl names it
  StreamFormat format;
};
constexpr Format kFormats[] = {{"MJPG", StreamFormat::kMjpeg},
                               {"H264", StreamFormat::kH264},
                               {"YUYV", StreamFormat::kYuy2},
                               {"HEVC", StreamFormat::kH265}};

constexpr std::size_t kMostPayload = 1920 * 1080 * 2;
constexpr u8 kFrameMark[] = {'r', 'd', 'h', 'V'};  // followed by the size, big-endian

struct Frame {
  std::span<const u8> payload;
  i64 arrived;   // CLOCK_MONOTONIC in nanoseconds
  u32 sequence;  // as counted by the host's driver
};

std::vector<u8> read_bytes(const std::string& path) {
  std::ifstream file(path, std::ios::binary);
  return {std::istreambuf_iterator<char>(file), {}};
}

// Returns the payloads with the times and numbers from the log; stops at the first that does not fit its
// header. Payloads that the driver marks as torn are missing in the capture and become zeros.
std::vector<Frame> read_capture(std::span<const u8> bytes, const std::string& log_path) {
  static const std::vector<u8> zeros(kMostPayload);
  std::vector<Frame> frames;
  std::ifstream log(log_path);
  for (std::string line; std::getline(log, line);) {
    u32 sequence, size, seconds, microseconds;
    if (std::sscanf(line.c_str(), " cap dqbuf: %*u seq: %u bytesused: %u ts: %u.%6u", &sequence, &size,
                    &seconds, &microseconds) != 4)
      continue;
    const i64 arrived = (i64{seconds} * 1'000'000 + microseconds) * 1000;
    if (line.find("(error") != line.npos) {
      frames.push_back(
          {std::span(zeros).first(std::min<std::size_t>(size, kMostPayload)), arrived, sequence});
      continue;
    }
    if (bytes.size() < 8 || std::memcmp(bytes.data(), kFrameMark, sizeof(kFrameMark)) != 0) break;
    if (size != (u32{bytes[4]} << 24 | bytes[5] << 16 | bytes[6] << 8 | bytes[7]) || size > bytes.size() - 8)
      break;
    frames.push_back({bytes.subspan(8, size), arrived, sequence});
    bytes = bytes.subspan(8 + size);
  }
  return frames;
}

// Returns the number of frames between the first and the last that the host's driver counted and v4l2-ctl was
// too slow for.
unsigned long missed(const std::vector<Frame>& frames) {
  return frames.back().sequence - frames.front().sequence + 1 - frames.size();
}

int check(StreamFormat format, FrameSize size, const std::vector<Frame>& frames, unsigned long least,
          const std::string& raw_path) {
  if (frames.empty()) return std::puts("nothing was captured"), 1;
  sim::FrameChecker checker(format, size.width, size.height, frames.front().arrived);
  std::ofstream raw(raw_path, std::ios::binary);
  for (const Frame& frame : frames) {
    checker.feed(frame.payload, frame.arrived);
    if (frame.payload.size() > 2)
      raw.write(reinterpret_cast<const char*>(frame.payload.data()), frame.payload.size());
  }
  const sim::StreamReport& report = checker.report();
  const double seconds = static_cast<double>(frames.back().arrived - frames.front().arrived) / 1e9;
  std::printf(
      "%lu frames, %.1f/s, %lu bytes each, latency %.0f ms (at most %.0f); %lu first payloads of 2 bytes",
      report.frames, static_cast<double>(frames.size() - 1) / seconds,
      static_cast<unsigned long>(report.bytes / std::max(report.frames, 1ul)), report.latency_ms,
      report.latency_max_ms, report.leading);
  const struct {
    const char* name;
    unsigned long count;
  } faults[] = {{"lost", report.lost},   {"torn", report.torn},   {"repeated", report.repeated},
                {"stale", report.stale}, {"empty", report.empty}, {"missed by v4l2-ctl", missed(frames)}};
  for (const auto& [name, count] : faults) {
    if (count) std::printf(", %s %lu", name, count);
  }
  std::putchar('\n');
  if (report.frames < least) std::printf("only %lu of %lu frames\n", report.frames, least);
  return raw && report.whole() && missed(frames) == 0 && report.frames >= least ? 0 : 1;
}

// Prints what v4l2-ctl should list: "MJPG 1920x1080", in the descriptors' order.
int print_formats() {
  for (const Format& row : kFormats) {
    for (const auto& [width, height] : sim::host_format(row.format).sizes)
      std::printf("%s %ux%u\n", row.fourcc.data(), width, height);
  }
  return 0;
}

}  // namespace

int main(int argc, char** argv) {
  if (argc == 2 && std::strcmp(argv[1], "formats") == 0) return print_formats();
  FrameSize size{};
  const Format* row = std::ranges::find(kFormats, argc == 8 ? argv[1] : "", &Format::fourcc);
  if (row == std::end(kFormats) || std::sscanf(argv[2], "%hux%hu", &size.width, &size.height) != 2) {
    std::fputs(
        "Usage: capture_check formats\n"
        "       capture_check FOURCC WIDTHxHEIGHT FRAMES CAPTURE V4L2_CTL_LOG MADE_LOG RAW\n\n"
        "The first prints what a host should list. The second judges a capture, which must hold FRAMES whole "
        "frames, and "
        "writes RAW.\n",
        stderr);
    return 2;
  }
  if (!sim::read_made_frames(argv[6])) return std::perror(argv[6]), 2;
  const std::vector<u8> bytes = read_bytes(argv[4]);
  return check(row->format, size, read_capture(bytes, argv[5]), std::stoul(argv[3]), argv[7]);
}
