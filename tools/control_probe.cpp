#include "tools/control_probe.h"

#include <array>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "ipc/VeltoDrvMsg.h"
#include "ipc/msg_records.h"
#include "ipc/sys_msg_drv.h"
#include "platform/sys.h"
#include "support/print.h"
#include "uvc/uvc_gadget_device.h"
#include "uvc/uvc_state.h"
#include "visca/visca.h"

namespace {

void require(bool held, const char* what) {
  if (held) return;
  std::fprintf(stderr, "controls_page: %s\n", what);
  std::exit(1);
}

using Bytes = std::array<u8, kUvcRequestDataSize>;

// Returns the bytes that are the same in two buffers that differed everywhere before.
std::vector<u8> written(const Bytes& first, const Bytes& second) {
  std::size_t count = 0;
  while (count < first.size() && first[count] == second[count]) ++count;
  return {first.begin(), first.begin() + static_cast<std::ptrdiff_t>(count)};
}

// Returns a line of the server's record in the page's words, without the reply.
std::string in_words(const std::string& line) {
  require(line.find(" -> 90 60 ") == std::string::npos,
          "sim/parties/visca_device.cpp does not understand a frame that a control sends");
  const std::string request = line.substr(0, line.find(" -> "));
  static const std::string kVisca = "sys 39 ", kCommand = "velto ";
  if (request.starts_with(kVisca)) return '`' + request.substr(kVisca.size()) + '`';
  if (!request.starts_with(kCommand)) return request;
  const std::size_t kind = request.find(" O", kCommand.size());
  if (kind == std::string::npos) return request;
  return "command " + request.substr(kCommand.size(), kind - kCommand.size()) + ':' +
         request.substr(kind + 2);
}

}  // namespace

ControlProbe::ControlProbe() : server_(sim::ServerOptions{}) {
  print_level = 1;
  run_.write_file("/opt/base/sys_update", "");
  sys::system("chmod +x /opt/base/sys_update; insmod /opt/vcam/ko/extdrv/g_webcam.ko");
  require(VeltoDrvInit(kVeltoProcess) == 0 && InitSysMsgDrv(kSysMsgProcess) == 0,
          "no connection to the system server");
  require(uvc_device_open() == 0, "no gadget node");
  usb_disconnect_word = &disconnect_word_;
  news();
}

u8 ControlProbe::serve(u8 request, const Place& place, std::size_t length) {
  using Handler = u32 (*)(UvcRequestContext*);
  static constexpr Handler kGets[] = {uvc_getcur, uvc_getmin,  uvc_getmax, uvc_getres,
                                      uvc_getlen, uvc_getinfo, uvc_getdef};
  UvcRequestContext context = {
      .bRequestType = static_cast<u8>(request == UVC_SET_CUR ? 0x21 : 0xA1),
      .bRequest = request,
      .wValue = static_cast<u16>(place.selector << 8),
      .wIndex = static_cast<u16>(place.entity << 8 | place.interface),
      .wLength = static_cast<u16>(length),
      .data = {},
  };
  uvc_request_error_code = kNoError;
  const Handler handler = request == UVC_SET_CUR ? uvc_setcur : kGets[request - UVC_GET_CUR];
  return static_cast<u8>(handler(&context));
}

ProbeAnswer ControlProbe::get(u8 request, const Place& place) {
  Bytes results[2];
  ProbeAnswer answer = {};
  for (const u8 fill : {u8{0x00}, u8{0xFF}}) {
    std::memset(uvc_resp_buf, fill, sizeof(Bytes));
    news();
    answer.status = serve(request, place, sizeof(Bytes));
    answer.sent = news();
    std::memcpy(&results[fill & 1], uvc_resp_buf, sizeof(Bytes));
  }
  answer.bytes = written(results[0], results[1]);
  return answer;
}

ProbeEffect ControlProbe::set(const Place& place, std::span<const u8> data) {
  require(data.size() <= sizeof(Bytes), "too much data");
  std::memcpy(uvc_resp_buf, data.data(), data.size());
  disconnect_word_ = 0;
  news();
  const u8 status = serve(UVC_SET_CUR, place, data.size());
  return {status, news()};
}

// A request that is answered passes through the same queue, so every command before it has arrived by then.
std::vector<std::string> ControlProbe::news() {
  ptz_get_pos();
  std::vector<std::string> lines = server_.received(lines_seen_);
  lines_seen_ += lines.size();
  lines.pop_back();
  for (std::string& line : lines) line = in_words(line);

  const std::string shell = run_.shell_log(), calls = node_.call_log();
  if (shell.size() > shell_seen_)
    lines.push_back("shell command `" + shell.substr(shell_seen_, shell.size() - shell_seen_ - 1) + '`');
  if (calls.find("PRIVATE", calls_seen_) != std::string::npos)
    lines.push_back("private request of the gadget driver");
  if (disconnect_word_) lines.push_back("disconnect word " + std::to_string(disconnect_word_));
  shell_seen_ = shell.size();
  calls_seen_ = calls.size();
  return lines;
}

std::string hex(std::span<const u8> bytes) {
  std::string text;
  for (const u8 byte : bytes) {
    char digits[4];
    std::snprintf(digits, sizeof(digits), "%s%02X", text.empty() ? "" : " ", byte);
    text += digits;
  }
  return text;
}
