// xu_query: reads or sets a control of an extension unit through the host driver's own ioctl.
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

namespace {

struct Query {
  std::string_view name;
  u8 code;
  u16 size = 0;  // bytes of the answer; 0 means the control's length
};
constexpr Query kQueries[] = {
    {"cur", UVC_GET_CUR}, {"min", UVC_GET_MIN},    {"max", UVC_GET_MAX},      {"res", UVC_GET_RES},
    {"def", UVC_GET_DEF}, {"len", UVC_GET_LEN, 2}, {"info", UVC_GET_INFO, 1},
};

u8 data[256];

bool query(int node, u8 unit, u8 selector, u8 code, u16 size) {
  uvc_xu_control_query record{unit, selector, code, size, data};
  if (ioctl(node, UVCIOC_CTRL_QUERY, &record) >= 0) return true;
  std::perror("UVCIOC_CTRL_QUERY");
  return false;
}

// Returns the control's length, which every client must ask for first, or prints an error and returns 0.
u16 length_of(int node, u8 unit, u8 selector) {
  return query(node, unit, selector, UVC_GET_LEN, 2) ? std::min<u16>(get_le16(data), sizeof(data)) : 0;
}

void print_bytes(u16 size) {
  for (u16 i = 0; i < size; ++i) std::printf("%s%02x", i ? " " : "", data[i]);
  std::puts("");
}

}  // namespace

int main(int argc, char** argv) {
  if (argc < 5) {
    std::fputs(
        "Usage: xu_query NODE UNIT SELECTOR len|info|cur|min|max|res|def...\n"
        "       xu_query NODE UNIT SELECTOR set BYTE...\n\n"
        "Bytes in hex, also what is printed: a line for each query.\n",
        stderr);
    return 2;
  }
  const int node = open(argv[1], O_RDWR | O_CLOEXEC);
  if (node < 0) return std::perror(argv[1]), 1;
  const u8 unit = static_cast<u8>(std::atoi(argv[2])), selector = static_cast<u8>(std::atoi(argv[3]));
  const u16 length = length_of(node, unit, selector);
  if (length == 0) return 1;
  if (std::string_view(argv[4]) == "set") {
    const int count = std::min(argc - 5, int{sizeof(data)});
    for (int i = 0; i < count; ++i) data[i] = static_cast<u8>(std::strtol(argv[5 + i], nullptr, 16));
    return query(node, unit, selector, UVC_SET_CUR, static_cast<u16>(count)) ? 0 : 1;
  }
  for (int i = 4; i < argc; ++i) {
    const auto* row = std::ranges::find(kQueries, argv[i], &Query::name);
    if (row == std::end(kQueries)) return std::fprintf(stderr, "no query \"%s\"\n", argv[i]), 2;
    const u16 size = row->size ? row->size : length;
    if (!query(node, unit, selector, row->code, size)) return 1;
    print_bytes(size);
  }
  return 0;
}
