// Writes docs/controls.md to standard output. It asks the service's own handlers, so the page shows what
// a host gets. Its argument is the file of the lines to copy and paste.
#include "tools/controls_page.h"

#include <algorithm>
#include <cstdio>
#include <fstream>

#include "sim/host/host_controls.h"
#include "sim/host/usb_host.h"
#include "tools/control_texts.h"
#include "tools/markdown_table.h"
#include "uvc/uvc_class_streaming.h"
#include "uvc/uvc_state.h"

std::string joined(std::span<const std::string> parts, const char* separator) {
  std::string text;
  for (const std::string& part : parts) text += (text.empty() ? "" : separator) + part;
  return text;
}

u32 number_in(std::span<const u8> bytes) {
  u32 value = 0;
  for (std::size_t i = std::min<std::size_t>(bytes.size(), 4); i-- > 0;) value = value << 8 | bytes[i];
  return value;
}

std::string number_cell(const ProbeAnswer& answer) {
  return cell(answer, [](std::span<const u8> bytes) { return std::to_string(number_in(bytes)); });
}

std::string sent_cell(const ProbeEffect& effect) {
  if (effect.status != kNoError) return "refused, status " + std::to_string(effect.status);
  return effect.sent.empty() ? "nothing" : joined(effect.sent, ", ");
}

namespace {

void print(const std::string& text) { std::fputs(text.c_str(), stdout); }

[[noreturn]] void require_text(const std::string& what) {
  std::fprintf(stderr, "controls_page: add %s of tools/control_texts.cpp\n", what.c_str());
  std::exit(1);
}

// A control of the camera terminal or the processing unit, with its data from the tables and texts.
struct Shown {
  Place place;
  const Control& row;
  const ControlText& text;
  std::vector<sim::HostControl> values;  // its values by name; empty if it has none
  std::size_t length;                    // bytes of its value
};

Shown shown(ControlProbe& probe, const Unit& unit, const Control& row) {
  const u8 entity = static_cast<u8>(unit.entity);
  const auto text = std::ranges::find_if(control_texts(), [&](const ControlText& candidate) {
    return candidate.entity == entity && candidate.selector == row.selector;
  });
  if (text == control_texts().end()) {
    require_text("selector " + std::to_string(row.selector) + " of entity " + std::to_string(entity) +
                 " to kControls");
  }
  Shown control = {{unit.interface, entity, row.selector}, row, *text, {}, 0};
  for (const sim::HostControl& value : sim::host_controls())
    if (value.entity == entity && value.selector == row.selector) control.values.push_back(value);
  control.length = control.values.empty() ? number_in(probe.get(UVC_GET_LEN, control.place).bytes)
                                          : control.values.front().length;
  return control;
}

// Writes named values as Linux numbers them, and motions and all others as their bytes or their number.
std::string value_text(const Shown& control, std::span<const u8> bytes) {
  std::vector<std::string> parts;
  const bool motion = !control.values.empty() && control.values.front().value == sim::HostValue::kMotion;
  if (motion) {
    for (const u8 byte : bytes.first(control.length)) parts.push_back(std::to_string(byte));
  } else {
    for (const sim::HostControl& value : control.values)
      parts.push_back(std::to_string(sim::value_in(value, UVC_GET_CUR, bytes).value_or(0)));
  }
  if (control.values.empty()) parts.push_back(std::to_string(number_in(bytes)));
  return joined(parts, ", ");
}

std::string value_cell(ControlProbe& probe, const Shown& control, u8 request) {
  return cell(probe.get(request, control.place),
              [&](std::span<const u8> bytes) { return value_text(control, bytes); });
}

std::vector<std::string> range_row(ControlProbe& probe, const Shown& control) {
  return {
      std::to_string(control.place.selector),
      control.text.name,
      number_cell(probe.get(UVC_GET_LEN, control.place)),
      number_cell(probe.get(UVC_GET_INFO, control.place)),
      value_cell(probe, control, UVC_GET_MIN),
      value_cell(probe, control, UVC_GET_MAX),
      value_cell(probe, control, UVC_GET_RES),
      value_cell(probe, control, UVC_GET_DEF),
      control.text.unit,
  };
}

std::string linux_range(ControlProbe& probe, const Shown& control, const sim::HostControl& value) {
  const auto limit = [&](u8 request) -> std::string {
    const auto number = sim::value_in(value, request, probe.get(request, control.place).bytes);
    return number ? std::to_string(*number) : "-";
  };
  if (limit(UVC_GET_MIN) == "-") require_text(std::string(value.name) + ", which has no range, to kLinux");
  return "(int) " + limit(UVC_GET_MIN) + ".." + limit(UVC_GET_MAX) + ", step " + limit(UVC_GET_RES) +
         ", default " + limit(UVC_GET_DEF);
}

// Returns a line for each value that Linux shows of the control, or one that says that there is none.
std::vector<std::string> linux_cells(ControlProbe& probe, const Shown& control) {
  std::vector<std::string> cells;
  for (const sim::HostControl& value : control.values) {
    const auto special = std::ranges::find(linux_texts(), std::string_view(value.name), &LinuxText::control);
    const bool plain = special == linux_texts().end();
    if (!plain && !special->shows) continue;
    cells.push_back('`' + std::string(value.name) + "` " +
                    (plain ? linux_range(probe, control, value) : special->shows));
  }
  if (cells.empty()) cells.push_back("not shown");
  return cells;
}

// Returns where GET_CUR takes its answer from, found out by setting the maximum, or 1, and reading again.
std::string reading_cell(ControlProbe& probe, const Shown& control) {
  const ProbeAnswer at_start = probe.get(UVC_GET_CUR, control.place);
  if (at_start.bytes.empty()) return "-";
  if (!at_start.sent.empty()) {
    const std::string inquiry = "inquiry " + joined(at_start.sent, ", ");
    if (control.row.cache == kNotCached) return inquiry;
    return "cache word " + std::to_string(control.row.cache) + ", else " + inquiry;
  }
  std::vector<u8> other = probe.get(UVC_GET_MAX, control.place).bytes;
  if (other.empty()) other = {1};
  probe.set(control.place, other);
  const bool kept = probe.get(UVC_GET_CUR, control.place).bytes == other;
  return (kept ? "what was set last; at start " : "always ") + value_text(control, at_start.bytes);
}

void add_reading(ControlProbe& probe, const Shown& control, MarkdownTable& table) {
  const std::vector<std::string> shows = linux_cells(probe, control);
  table.add({control.text.name, reading_cell(probe, control), shows.front()});
  for (std::size_t i = 1; i < shows.size(); ++i) table.add({"", "", shows[i]});
}

// Returns minimum, default and maximum, and the next number if the control's bytes can hold it.
std::vector<std::vector<u8>> ends_of_range(ControlProbe& probe, const Shown& control) {
  std::vector<std::vector<u8>> values;
  for (const u8 request : {UVC_GET_MIN, UVC_GET_DEF, UVC_GET_MAX}) {
    std::vector<u8> bytes = probe.get(request, control.place).bytes;
    bytes.resize(control.length);
    if (std::ranges::find(values, bytes) == values.end()) values.push_back(std::move(bytes));
  }
  std::vector<u8> beyond = values.back();
  const bool carries = ++beyond.front() == 0;
  if (control.length <= 4 && !carries) values.push_back(std::move(beyond));
  return values;
}

void add_settings(ControlProbe& probe, const Shown& control, MarkdownTable& table) {
  const auto& examples = control.text.examples;
  for (const auto& data : examples.empty() ? ends_of_range(probe, control) : examples) {
    const ProbeEffect effect = probe.set(control.place, data);
    table.add({control.text.name, value_text(control, data), hex(data), sent_cell(effect)});
  }
}

void print_camera_unit(ControlProbe& probe, const Unit& unit) {
  MarkdownTable ranges(
      {"selector", "control", "length", "info", "minimum", "maximum", "resolution", "default", "unit"});
  MarkdownTable readings({"control", "GET_CUR answers", "Linux shows"});
  MarkdownTable settings({"control", "value", "data", "SET_CUR sends"});
  for (const Control& row : unit.controls) {
    const Shown control = shown(probe, unit, row);
    ranges.add(range_row(probe, control));
    add_reading(probe, control, readings);
    add_settings(probe, control, settings);
  }
  print(ranges.text() + '\n' + readings.text() + '\n' + settings.text());
}

struct StreamingRow {
  u8 selector;
  const char* name;
  const char* set;
};
constexpr StreamingRow kStreamingRows[] = {
    {VS_PROBE_CONTROL, "VS_PROBE_CONTROL", "stores bytes 0..17"},
    {VS_COMMIT_CONTROL, "VS_COMMIT_CONTROL", "stores bytes 0..17, then the stream's settings: command 10"},
    {VS_STILL_PROBE_CONTROL, "VS_STILL_PROBE_CONTROL", "stores bytes 0..6"},
    {VS_STILL_COMMIT_CONTROL, "VS_STILL_COMMIT_CONTROL", "stores bytes 0..6"},
    {VS_STILL_IMAGE_TRIGGER_CONTROL, "VS_STILL_IMAGE_TRIGGER_CONTROL", "asks for a still image"},
};

std::string block_cell(const ProbeAnswer& answer) {
  return cell(answer, [](std::span<const u8> bytes) { return std::to_string(bytes.size()) + " bytes"; });
}

constexpr Place kCommit = {kVideoStreamingInterface, 0, VS_COMMIT_CONTROL};

// The size that a commit of the format and frame index sets.
std::string committed_size(ControlProbe& probe, std::vector<u8> block, const sim::HostFormat& format,
                           std::size_t frame) {
  block[2] = static_cast<u8>(format.format);
  block[3] = static_cast<u8>(frame);
  probe.set(kCommit, block);
  return std::to_string(cur_col) + 'x' + std::to_string(cur_line);
}

// Every frame size; the block is afterwards as it was before.
std::string frame_sizes(ControlProbe& probe) {
  const std::vector<u8> block = probe.get(UVC_GET_CUR, kCommit).bytes;
  std::vector<std::string> header = {"frame index"};
  std::size_t most = 0;
  for (const sim::HostFormat& format : sim::host_formats()) {
    header.push_back(std::to_string(static_cast<int>(format.format)) + ' ' + format.name);
    most = std::max(most, format.sizes.size());
  }
  MarkdownTable table(header);
  for (std::size_t frame = 1; frame <= most; ++frame) {
    std::vector<std::string> row = {std::to_string(frame)};
    for (const sim::HostFormat& format : sim::host_formats())
      row.push_back(frame <= format.sizes.size() ? committed_size(probe, block, format, frame) : "");
    table.add(row);
  }
  probe.set(kCommit, block);
  return table.text();
}

void print_streaming_interface(ControlProbe& probe) {
  MarkdownTable table(
      {"selector", "control", "length", "info", "MIN, MAX", "RES, DEF", "GET_CUR", "SET_CUR"});
  for (const StreamingRow& row : kStreamingRows) {
    const Place place = {kVideoStreamingInterface, 0, row.selector};
    table.add({std::to_string(row.selector), row.name, number_cell(probe.get(UVC_GET_LEN, place)),
               number_cell(probe.get(UVC_GET_INFO, place)), block_cell(probe.get(UVC_GET_MIN, place)),
               block_cell(probe.get(UVC_GET_RES, place)), block_cell(probe.get(UVC_GET_CUR, place)),
               row.set});
  }
  const std::string sizes = frame_sizes(probe);
  const Place probe_control = {kVideoStreamingInterface, 0, VS_PROBE_CONTROL};
  const Place still = {kVideoStreamingInterface, 0, VS_STILL_PROBE_CONTROL};
  MarkdownTable blocks({"block", "bytes"});
  blocks.add({"GET_MIN and GET_MAX of probe and commit, always", hex(probe.get(UVC_GET_MIN, kCommit).bytes)});
  blocks.add({"every GET of the still probe, at start", hex(probe.get(UVC_GET_CUR, still).bytes)});
  std::vector<u8> wanted = probe.get(UVC_GET_CUR, probe_control).bytes;
  wanted[2] = kFormatH264;
  wanted[3] = 2;
  const ProbeEffect effect = probe.set(kCommit, wanted);
  blocks.add({"SET_CUR of commit: H.264, frame 2", hex(wanted)});
  blocks.add({"which sends", joined(effect.sent, ", ")});
  blocks.add({"GET_CUR, GET_RES and GET_DEF then", hex(probe.get(UVC_GET_CUR, probe_control).bytes)});
  print(kStreamingText + table.text() + '\n' + blocks.text() + kFrameSizesText + sizes + kStreamStartText);
}

// The file's lines are commands, under titles that begin with "# ".
bool print_host_lines(const char* path) {
  print(kHostLinesText);
  std::ifstream file(path);
  std::string line;
  while (std::getline(file, line))
    print(line.starts_with("# ") ? "\n##" + line + "\n\n" : "    " + line + '\n');
  return file.eof();
}

}  // namespace

int main(int argc, char** argv) {
  ControlProbe probe;
  print(kIntroduction);
  print_descriptors();
  const std::span<const Unit* const> units = uvc_units();
  print("\n## Camera terminal (entity 1)\n\n");
  print_camera_unit(probe, *units[0]);
  print("\n## Processing unit (entity 2)\n\n");
  print_camera_unit(probe, *units[1]);
  print_streaming_interface(probe);
  print_extension_unit(probe);
  const bool read = argc == 2 && print_host_lines(argv[1]);
  print(kRefusedText);
  print(kOddities);
  if (!read) std::fputs("Usage: controls_page LINES\n", stderr);
  return read ? 0 : 1;
}
