#include "uvc/uvc_gadget.h"

#include <pthread.h>
#include <sys/time.h>
#include <sys/wait.h>
#include <unistd.h>

#include <csignal>
#include <cstring>

#include "elog/elog.h"
#include "ipc/VeltoDrvMsg.h"
#include "ipc/Velto_interface.h"
#include "ipc/file_msg_drv.h"
#include "ipc/msg_records.h"
#include "ipc/sys_msg_drv.h"
#include "platform/output.h"
#include "platform/sys.h"
#include "support/hi_tools.h"
#include "support/print.h"
#include "support/support.h"
#include "uvc/uvc_class.h"
#include "uvc/uvc_class_encoder.h"
#include "uvc/uvc_gadget_device.h"
#include "uvc/uvc_gadget_loop.h"
#include "uvc/uvc_gadget_signals.h"
#include "uvc/uvc_state.h"
#include "uvc/uvc_vendor.h"
#include "vencbuf/vencbuf_get.h"

constexpr char kPrintFile[] = "uvc_gadget.c";

namespace {

constexpr useconds_t kConnectPause = 5'000;
constexpr useconds_t kCommandPause = 5'000;

constexpr u32 kPinMuxRegisters[] = {0x200F0074, 0x200F01A8};
constexpr u32 kPortSelectPin = 122;
constexpr u32 kPortEnablePin = 73;

constexpr const char* kModuleCommands[] = {
    "rmmod  /opt/vcam/ko/extdrv/g_webcam.ko",
    "rmmod  /opt/vcam/ko/extdrv/dwc_otg.ko",
    "insmod /opt/vcam/ko/extdrv/dwc_otg.ko",
    "insmod /opt/vcam/ko/extdrv/g_webcam.ko",
};

void write_pin_mux() {
  for (const u32 address : kPinMuxRegisters) himm(address, 0);
}

i32 attach_channels() {
  if (InitSysMsgDrv(kSysMsgProcess) < 0) return -1;
  if (InitFileMsgDrv(kFileMsgKey, kFileMsgProcess) < 0) return -1;
  return 0;
}

// The USB port selection. Prints a message and returns -1 when the server's record never becomes valid.
i64 read_usb_port() {
  const SysInfo* info = GetSysInfo();
  if (!info) {
    output(STDERR_FILENO, "uvc_gadget: no valid parameter record from the system server, ending\n");
    return -1;
  }
  const u32 port = info->usb_port;
  PRINT_DEBUG("USB port sel:%d\n", static_cast<i32>(port));
  return port;
}

// A command that is still running when the service is to end is killed: it would remove what the next service
// has just loaded.
void run_until_exit(const char* command) {
  if (uvc_stream_state.exit_flag) return;
  const pid_t child = sys::spawn(command);
  while (child > 0 && waitpid(child, nullptr, WNOHANG) == 0) {
    if (uvc_stream_state.exit_flag) {
      kill(-child, SIGKILL);
      return;
    }
    serve_signals();
    sys::usleep(kCommandPause);
  }
}

void reload_modules() {
  for (const char* command : kModuleCommands) run_until_exit(command);
}

// Opens the node and starts the control thread on it. Returns 0, or -1 when the service is to end instead.
i32 bring_up_device(pthread_t* thread) {
  while (!uvc_stream_state.exit_flag && uvc_device_open() == 0) {
    const int result = pthread_create(thread, nullptr, uvc_class_procesing, &uvc_video_fd);
    if (result == 0) return 0;
    PRINT_INFO("can't create thread: %s\n", std::strerror(result));
    uvc_device_close();
  }
  return -1;
}

void find_shared_words() {
  camera_cache = GetSysCameraCache();
  usb_disconnect_word = GetSysRequestFlags();
}

void run_streaming_loop() {
  StreamLoop loop = {.need_dequeue = uvc_buffer_count > 0};
  while (!uvc_stream_state.exit_flag) stream_turn(loop);
}

void shut_down() {
  serve_signals();
  if (uvc_video_fd >= 0) uvc_device_close();
  notify_stream_stop();
  VeltoInterfaceExit();
  CleanupFileMsgDrv();
  CleanupSysMsgDrv();
  log_module_exit();
}

}  // namespace

void second_cnt() {
  UvcStreamState& state = uvc_stream_state;
  state.second_cnt_count = state.second_cnt_count + 1;
  timeval now;
  gettimeofday(&now, nullptr);
  const i32 second = static_cast<i32>(now.tv_sec);
  if (second == state.second_cnt_sec) return;
  PRINT_INFO("B %d\n", i32(state.second_cnt_count));
  state.second_cnt_sec = second;
  state.second_cnt_count = 0;
}

void gpio_set_output(u32 pin, u32 value) {
  const u32 group = pin / 8;
  const u32 bit = pin % 8;
  const u32 base = group < 15 ? 0x20140000 + group * 0x10000 : 0x20260000;
  himm(base + (4u << bit), value ? 1u << bit : 0);
  himm(base + 0x400, himd(base + 0x400) | 1u << bit);
}

i32 connect_av_server(i32 id) {
  if (VeltoDrvInit(id) < 0) return -1;
  if (func_get_mem(nullptr) == 0) return 0;
  VeltoDrvExit();
  return -1;
}

// Deliberate: before the handlers are installed SIGTERM ends the process by its default action, also while
// the service waits for the system server; the pins are driven twice, first with the inverse of the port.
i32 uvc_gadget_main(int, char** argv) {
  log_module_init(print_level);
  process_info_print(argv[0]);
  print_level_load(kProcessName);
  install_reload_handler();
  if (attach_channels() < 0) return -1;
  const i64 port = read_usb_port();
  if (port < 0) return -1;
  while (connect_av_server(kVeltoProcess) < 0) {
    serve_signals();
    sys::usleep(kConnectPause);
  }
  write_pin_mux();
  gpio_set_output(kPortSelectPin, port == 0);
  gpio_set_output(kPortEnablePin, 1);
  install_exit_handlers();
  reload_modules();
  pthread_t control_thread;
  if (bring_up_device(&control_thread) == 0) {
    if (vencbuf_get_init() < 0) {
      PRINT_ERROR_IN("main", "vencbuf_get_init failed!\n");
      uvc_stream_state.exit_flag = 1;
    }
    write_pin_mux();
    gpio_set_output(kPortSelectPin, port != 0);
    gpio_set_output(kPortEnablePin, 0);
    find_shared_words();
    uvc_vendor_init(kBuildVersion, kBuildDate);
    run_streaming_loop();
    pthread_cancel(control_thread);
    pthread_join(control_thread, nullptr);
  }
  shut_down();
  return 0;
}
