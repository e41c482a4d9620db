// The judge of the bed's captures must find what a driver or a service could do to them.
#include <gtest/gtest.h>
#include <sys/wait.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

#include "sim/media/encoder.h"
#include "sim/media/made_frames.h"
#include "sim/media/scene.h"

namespace {

constexpr EncoderSettings kMjpeg = {320, 240, 30, 0, kCodecMjpeg, 2, {80}};
constexpr i64 kFrameTime = 33'333'333;
constexpr i64 kStart = 100'000'000'000;

using Payload = std::vector<u8>;

// A capture as v4l2-ctl writes it, with its log, and the media process's log beside them.
struct CaptureCheckTest : testing::Test {
  CaptureCheckTest() {
    sim::Scene scene("", kMjpeg.width, kMjpeg.height, true);
    sim::Encoder encoder;
    payloads.assign(3, Payload(2));
    std::ofstream made(folder / "made");
    for (u32 counter = 1; counter <= 5; ++counter) {
      const auto frame = encoder.encode(kMjpeg, scene.picture(counter, {}), true);
      payloads.emplace_back(frame->data.begin(), frame->data.end());
      made << counter << ' ' << kStart + counter * kFrameTime << ' ' << sim::payload_checksum(frame->data)
           << '\n';
    }
  }
  ~CaptureCheckTest() override { std::filesystem::remove_all(folder); }

  // What the program's exit status is for the payloads, numbered by the host's driver from 0 on.
  int judged() {
    std::ofstream capture(folder / "capture"), log(folder / "log");
    for (std::size_t i = 0; i < payloads.size(); ++i) {
      const auto size = static_cast<u32>(payloads[i].size());
      if (i != marked) {
        capture << "rdhV";
        for (int shift = 24; shift >= 0; shift -= 8) capture.put(static_cast<char>(size >> shift));
        capture.write(reinterpret_cast<const char*>(payloads[i].data()), size);
      }
      const i64 microseconds = (kStart + static_cast<i64>(i) * kFrameTime) / 1000;
      log << "cap dqbuf: 0 seq: " << i << " bytesused: " << size << " ts: " << microseconds / 1'000'000 << '.'
          << std::to_string(1'000'000 + microseconds % 1'000'000).substr(1)
          << (i == marked ? " (error, ts-monotonic)\n" : " (ts-monotonic)\n");
    }
    capture.close();
    log.close();
    const std::string path = folder.string() + '/';
    const auto program = std::filesystem::read_symlink("/proc/self/exe").replace_filename("capture_check");
    const std::string line = program.string() + " MJPG 320x240 4 " + path + "capture " + path + "log " +
                             path + "made " + path + "raw >" + path + "said 2>&1";
    return WEXITSTATUS(std::system(line.c_str()));
  }

  const std::filesystem::path folder = [] {
    std::string name = "/dev/shm/capture-check-XXXXXX";
    return std::filesystem::path(mkdtemp(name.data()));
  }();
  std::size_t marked = 99;        // index of a payload that the driver marks as torn
  std::vector<Payload> payloads;  // three empty ones, as at every stream's start, then five pictures
};

TEST_F(CaptureCheckTest, HoldsForAWholeStream) { EXPECT_EQ(judged(), 0); }

TEST_F(CaptureCheckTest, FindsOneChangedByteAndAFrameThatTheDriverMarks) {
  marked = 5;
  EXPECT_EQ(judged(), 1);
  marked = 2;
  EXPECT_EQ(judged(), 0);
  payloads[5][payloads[5].size() / 2] ^= 1;
  EXPECT_EQ(judged(), 1);
}

TEST_F(CaptureCheckTest, FindsALostARepeatedAndAnEmptyFrame) {
  const auto whole = payloads;
  payloads.erase(payloads.begin() + 5);
  EXPECT_EQ(judged(), 1);
  payloads = whole;
  payloads[5] = payloads[4];
  EXPECT_EQ(judged(), 1);
  payloads = whole;
  payloads.insert(payloads.begin() + 5, Payload(2));
  EXPECT_EQ(judged(), 1);
}

TEST_F(CaptureCheckTest, FindsThatFramesAreTooFew) {
  payloads.resize(6);
  EXPECT_EQ(judged(), 1);
}

}  // namespace
