// The page's part about the descriptors: entities with their control bitmaps, and the extension unit's GUID.
#include <algorithm>
#include <cstdio>
#include <iterator>

#include "platform/uvc_units.h"
#include "sim/host/usb_descriptors.h"
#include "tools/control_texts.h"
#include "tools/controls_page.h"
#include "tools/markdown_table.h"

namespace {

constexpr u8 kInterface = 4, kClassInterface = 0x24;  // types of descriptors
constexpr u8 kVideoStreaming = 2;                     // subclass of an interface

// What a descriptor of the video-control interface is, by its subtype, and where it has its fields, if any.
struct EntityRow {
  u8 subtype;
  const char* name;
  std::size_t type_at, source_at, bits_size_at;
};
constexpr EntityRow kEntityRows[] = {
    {2, "camera terminal", 4, 0, 14},
    {5, "processing unit", 0, 4, 7},
    {6, "extension unit", 0, 22, 23},
    {3, "output terminal", 4, 7, 0},
};

std::string hex_number(u16 number) {
  char text[8];
  std::snprintf(text, sizeof(text), "0x%04X", number);
  return text;
}

std::vector<std::string> entity_row(const EntityRow& row, std::span<const u8> bytes) {
  return {
      std::to_string(bytes[3]),
      row.name,
      std::to_string(row.subtype),
      row.type_at ? hex_number(get_le16(&bytes[row.type_at])) : "-",
      row.source_at ? std::to_string(bytes[row.source_at]) : "-",
      row.bits_size_at ? hex(bytes.subspan(row.bits_size_at + 1, bytes[row.bits_size_at])) : "-",
  };
}

// As tools write it: three numbers, then bytes.
std::string guid_text(const u8 (&guid)[16]) {
  char text[40];
  std::snprintf(text, sizeof(text), "%08x-%04x-%04x-%02x%02x-%02x%02x%02x%02x%02x%02x", get_le32(guid),
                get_le16(guid + 4), get_le16(guid + 6), guid[8], guid[9], guid[10], guid[11], guid[12],
                guid[13], guid[14], guid[15]);
  return text;
}

}  // namespace

void print_descriptors() {
  MarkdownTable table({"entity", "what", "descriptor subtype", "terminal type", "source", "bmControls"});
  const std::vector<u8> bytes = sim::configuration_descriptor();
  std::span<const u8> rest(bytes);
  for (; rest[1] != kInterface || rest[6] != kVideoStreaming; rest = rest.subspan(rest[0])) {
    const auto row = std::ranges::find(kEntityRows, rest[2], &EntityRow::subtype);
    if (rest[1] == kClassInterface && row != std::end(kEntityRows)) table.add(entity_row(*row, rest));
  }
  std::printf("%s%s\nThe extension unit's GUID is `%s`, in the descriptor `%s`.\n", kDescriptorsText,
              table.text().c_str(), guid_text(kExtensionUnitGuid).c_str(), hex(kExtensionUnitGuid).c_str());
}
