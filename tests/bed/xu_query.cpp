// xu_query: asks or sets a control of an extension unit through the host driver's own ioctl.
#include <fcntl.h>
#include <linux/usb/video.h>
#include <linux/uvcvideo.h>
#include <sys/ioctl.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <iterator>
#include <string_view>

#include "common/bytes.h"

static constexpr struct {
  std::string_view name;
  u8 code;
} kQueries[] = {{"set", UVC_SET_CUR}, {"cur", UVC_GET_CUR}, {"min", UVC_GET_MIN}, {"max", UVC_GET_MAX},
                {"res", UVC_GET_RES}, {"def", UVC_GET_DEF}, {"len", UVC_GET_LEN}, {"info", UVC_GET_INFO}};

static u8 data[256];

static bool query(int node, u8 unit, u8 selector, u8 code, u16 size) {
  uvc_xu_control_query record{unit, selector, code, size, data};
  if (ioctl(node, UVCIOC_CTRL_QUERY, &record) >= 0) return true;
  std::perror("UVCIOC_CTRL_QUERY");
  return false;
}

/// The control's length, as every client must ask it first; 0 after a message.
static u16 length_of(int node, u8 unit, u8 selector) {
  return query(node, unit, selector, UVC_GET_LEN, 2) ? std::min<u16>(get_le16(data), sizeof data) : 0;
}

int main(int argc, char** argv) {
  const auto* row =
      argc < 5 ? std::end(kQueries) : std::ranges::find(kQueries, argv[4], [](auto& q) { return q.name; });
  if (row == std::end(kQueries)) {
    std::fputs(
        "Usage: xu_query NODE UNIT SELECTOR len|info|cur|min|max|res|def\n"
        "       xu_query NODE UNIT SELECTOR set BYTE...\n\nBytes in hex, also what is printed.\n",
        stderr);
    return 2;
  }
  const int node = open(argv[1], O_RDWR | O_CLOEXEC);
  if (node < 0) return std::perror(argv[1]), 1;
  const u8 unit = static_cast<u8>(std::atoi(argv[2])), selector = static_cast<u8>(std::atoi(argv[3]));
  u16 size = row->code == UVC_GET_LEN ? 2 : row->code == UVC_GET_INFO ? 1 : length_of(node, unit, selector);
  if (size == 0) return 1;
  if (row->code == UVC_SET_CUR) {
    size = static_cast<u16>(argc - 5);
    for (int i = 5; i < argc && i - 5 < int{sizeof data}; ++i)
      data[i - 5] = static_cast<u8>(std::strtol(argv[i], nullptr, 16));
  }
  if (!query(node, unit, selector, row->code, size)) return 1;
  for (u16 i = 0; i < size; ++i) std::printf("%s%02x", i ? " " : "", data[i]);
  std::puts("");
  return 0;
}
