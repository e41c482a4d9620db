// The two examples in place of the simulator's system server and encoder: a service, a host, and nobody else.
#include <gmock/gmock.h>
#include <linux/usb/video.h>
#include <sys/stat.h>

#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "ipc/msg_records.h"
#include "platform/uvc_units.h"
#include "sim/app/service_process.h"
#include "sim/host/usb_host.h"
#include "sim/media/encoder.h"
#include "sim/media/scene.h"
#include "sim/seam/physical_memory.h"
#include "sim/seam/run.h"
#include "uvc/uvc_class_camera.h"
#include "vencbuf/enc_frame.h"

using namespace std::chrono_literals;

namespace {

constexpr EncoderSettings kPictures = {320, 240, 30, 0, kCodecMjpeg, 2, {80}};
constexpr sim::StreamChoice kStream = {sim::StreamFormat::kMjpeg, {320, 240}, 30};
constexpr std::size_t kFrames = 15;

std::string program(const char* name) {
  return std::filesystem::read_symlink("/proc/self/exe").replace_filename(name).string();
}

struct ExamplesTest : testing::Test {
  ExamplesTest() {
    sim::Scene scene("", kPictures.width, kPictures.height, true);
    sim::Encoder encoder;
    for (u32 counter = 1; counter <= 3; ++counter) {
      const auto frame = encoder.encode(kPictures, scene.picture(counter, {}), true);
      pictures.emplace_back(frame->data.begin(), frame->data.end());
      run.write_file("/tmp/" + std::to_string(counter) + ".jpg", pictures.back());
    }
    std::ostringstream script;
    script << "#!/bin/sh\n" << program("system_server");
    for (const i32 key : {kFileMsgKey, kVeltoMsgKey, kSysMsgKey}) script << ' ' << sim::run_key(key);
    script << ' ' << sim::kAvPoolBase << ' ' << sim::kAvPoolSize << " | tee -a " << run.path("/tmp/commands")
           << " | " << program("encoder") << " -k " << sim::run_key(VENC_RING_KEY) << " -r "
           << sim::run_semaphore(kFrameReadySemaphore).c_str() << " -w "
           << sim::run_semaphore(kSlotReleasedSemaphore).c_str() << " 320x240 " << run.path("/tmp/")
           << "[123].jpg\n";
    run.write_file("/bin/neighbours", script.str());
    chmod(run.path("/bin/neighbours").c_str(), 0700);
  }
  ~ExamplesTest() override {
    neighbours.reset();
    service.reset();
    std::fclose(output);
  }

  void start_neighbours() {
    neighbours.reset();
    neighbours = std::make_unique<sim::ServiceProcess>(std::vector<std::string>{run.path("/bin/neighbours")},
                                                       output, false);
  }

  template <class Condition>
  bool wait_until(Condition condition) {
    const auto end = std::chrono::steady_clock::now() + 20s;
    while (!condition() && std::chrono::steady_clock::now() < end) std::this_thread::sleep_for(5ms);
    return condition();
  }

  std::vector<u8> get(u8 entity, u8 selector, std::size_t length) {
    return conversation.control(sim::class_request(UVC_GET_CUR, 0, entity, selector, length)).data;
  }
  std::vector<u8> set_and_get(u8 entity, u8 selector, const std::vector<u8>& value) {
    conversation.control(sim::class_request(UVC_SET_CUR, 0, entity, selector, value.size()), value);
    return get(entity, selector, value.size());
  }

  // Streams, and expects every payload of the host to be a file of the encoder's, from end to end.
  void expect_the_encoders_frames() {
    std::ostringstream copy;
    ASSERT_TRUE(host.start(kStream, &copy)) << host.error();
    wait_until([this] { return host.progress().payloads >= kFrames + 3; });
    host.stop("");
    const std::string received = copy.str();
    std::size_t frames = 0;
    for (std::string_view rest = received; !rest.empty(); ++frames) {
      const auto frame = std::ranges::find_if(pictures, [&](auto& file) { return rest.starts_with(file); });
      ASSERT_NE(frame, pictures.end()) << "after " << frames << " whole frames";
      rest.remove_prefix(frame->size());
    }
    EXPECT_GE(frames, kFrames);
  }

  sim::Run run;
  sim::PhysicalMemory memory;
  sim::NodeHost node;
  sim::Conversation conversation{node, {}};
  sim::UsbHost host{node, conversation, false};
  std::FILE* output = std::tmpfile();
  std::unique_ptr<sim::ServiceProcess> service, neighbours;
  std::vector<std::string> pictures;
};

TEST_F(ExamplesTest, AreAWholeCameraForAServiceThatWasThereFirst) {
  service = std::make_unique<sim::ServiceProcess>(std::vector<std::string>{program("uvc_gadget_sim")}, output,
                                                  false);
  std::this_thread::sleep_for(200ms);
  start_neighbours();
  ASSERT_TRUE(node.wait_for_device(20s)) << service->last_lines();
  host.replug();
  ASSERT_TRUE(host.enumerate()) << host.error();

  EXPECT_EQ(get(kProcessingUnit, PU_SHARPNESS_CONTROL, 2), (std::vector<u8>{3, 0}));
  const struct {
    u8 entity, selector;
    std::vector<u8> value;
  } settings[] = {
      {kProcessingUnit, PU_BRIGHTNESS_CONTROL, {12, 0}},
      {kProcessingUnit, PU_GAMMA_CONTROL, {5, 0}},
      {kProcessingUnit, PU_WHITE_BALANCE_TEMPERATURE_AUTO_CONTROL, {0}},
      {kProcessingUnit, PU_WHITE_BALANCE_TEMPERATURE_AUTO_CONTROL, {1}},
      {kCameraTerminal, CT_AE_MODE_CONTROL, {0}},
      {kCameraTerminal, CT_AE_MODE_CONTROL, {1}},
      {kCameraTerminal, CT_ZOOM_ABSOLUTE_CONTROL, {0x34, 0x12}},
  };
  for (const auto& [entity, selector, value] : settings)
    EXPECT_EQ(set_and_get(entity, selector, value), value) << int(entity) << ' ' << int(selector);
  expect_the_encoders_frames();
  set_and_get(kExtensionUnit, 1, {7});

  host.unplug();
  EXPECT_TRUE(
      wait_until([this] { return neighbours->last_lines().find("host has gone") != std::string::npos; }));
  for (const char* line : {"\n10 2 1 320 240 30 0 1 ", "\n10 2 0 320 240 30 0 1 ", "\n12 7\n"})
    EXPECT_TRUE(wait_until([&] { return run.read_file("/tmp/commands").find(line) != std::string::npos; }))
        << line << "is not among\n"
        << run.read_file("/tmp/commands");

  start_neighbours();
  host.replug();
  EXPECT_EQ(get(kProcessingUnit, PU_BRIGHTNESS_CONTROL, 2), (std::vector<u8>{8, 0})) << "of the new server";
  expect_the_encoders_frames();
  ASSERT_TRUE(service->stop(10)) << service->last_lines();
  EXPECT_EQ(service->how_it_ended(), "exit status 0");
  EXPECT_THAT(node.protocol_errors(), testing::IsEmpty());
}

}  // namespace
