// The page's part about the extension unit: selectors, version record, rate control.
#include <algorithm>
#include <cstdio>

#include "common/stream_state.h"
#include "platform/uvc_units.h"
#include "sim/host/extension_unit.h"
#include "support/support.h"
#include "tools/control_texts.h"
#include "tools/controls_page.h"
#include "tools/markdown_table.h"
#include "uvc/uvc_state.h"
#include "uvc/uvc_vendor.h"

namespace {

void print(const std::string& text) { std::fputs(text.c_str(), stdout); }

constexpr u8 kLastSelector = 28;
constexpr u8 kVersionSelector = 9, kRateControlSelector = 16;

std::string meaning_of(const sim::ExtensionSelector& row) {
  return row.caution ? std::string("**") + row.meaning + "**" : row.meaning;
}

Place vendor(u8 selector) { return {kVideoControlInterface, kExtensionUnit, selector}; }

// Words that a mode does not have would keep their values from the last mode.
void clear_encoder_parameters() {
  for (Word& word : encoder_record.rc_param) word = 0;
}

std::string hex_cell(const ProbeAnswer& answer) {
  return cell(answer, [](std::span<const u8> bytes) { return hex(bytes); });
}

struct Codec {
  i32 format;
  const char* name;
  RateControl& settings;
};
const Codec kCodecs[] = {
    {kFormatMjpeg, "MJPEG", mjpeg_rate_control},
    {kFormatH264, "H.264", h264_rate_control},
    {kFormatH265, "H.265", h265_rate_control},
};

const char* codec_name(i32 format) {
  const auto codec = std::ranges::find(kCodecs, format, &Codec::format);
  return codec == std::end(kCodecs) ? "YUY2" : codec->name;
}

void print_selectors(ControlProbe& probe) {
  cur_format = kFormatH264;
  MarkdownTable table(
      {"selector", "meaning", "length", "info", "minimum", "maximum", "resolution", "default"});
  MarkdownTable readings({"GET_CUR of", "answers"});
  for (u8 selector = 0; selector <= kLastSelector + 1; ++selector) {
    const Place place = vendor(selector);
    const auto row =
        std::ranges::find(sim::extension_selectors(), selector, &sim::ExtensionSelector::selector);
    const std::string number = selector <= kLastSelector ? std::to_string(selector) : "29..255";
    table.add_or_join(
        {number, row == sim::extension_selectors().end() ? "none" : meaning_of(*row),
         number_cell(probe.get(UVC_GET_LEN, place)), number_cell(probe.get(UVC_GET_INFO, place)),
         number_cell(probe.get(UVC_GET_MIN, place)), number_cell(probe.get(UVC_GET_MAX, place)),
         number_cell(probe.get(UVC_GET_RES, place)), number_cell(probe.get(UVC_GET_DEF, place))});
    readings.add_or_join({number, hex_cell(probe.get(UVC_GET_CUR, place))});
  }
  print(kVendorText + table.text() + '\n' + readings.text());
}

void print_settings(ControlProbe& probe) {
  MarkdownTable table({"SET_CUR of", "data", "codec", "has the effect"});
  for (const VendorExample& example : vendor_examples()) {
    cur_format = example.format;
    uvc_stream_state.stream_on = example.streams;
    clear_encoder_parameters();
    table.add({std::to_string(example.selector), hex(example.data),
               codec_name(example.format) + std::string(example.streams ? ", streaming" : ""),
               sent_cell(probe.set(vendor(example.selector), example.data))});
  }
  print('\n' + table.text());
}

constexpr Place kRateControl = {kVideoControlInterface, kExtensionUnit, kRateControlSelector};

std::vector<u8> read_block(ControlProbe& probe) { return probe.get(UVC_GET_CUR, kRateControl).bytes; }

void print_modes(ControlProbe& probe) {
  uvc_stream_state.stream_on = 1;
  MarkdownTable table({"codec", "mode", "parameters", "block", "SET_CUR sends"});
  for (const RateMode& row : rate_modes()) {
    cur_format = row.format;
    std::ranges::find(kCodecs, row.format, &Codec::format)->settings.mode = row.mode;
    clear_encoder_parameters();
    const std::vector<u8> block = read_block(probe);
    const ProbeEffect effect = probe.set(kRateControl, block);
    table.add(
        {codec_name(row.format), std::to_string(row.mode), row.parameters, hex(block), sent_cell(effect)});
  }
  cur_format = kFormatYuy2;
  table.add({codec_name(kFormatYuy2), "-", "-", hex(read_block(probe)), "nothing"});
  print(kRateControlText + table.text());
}

void print_refused_blocks(ControlProbe& probe) {
  MarkdownTable table({"codec", "block", "refused because"});
  for (const RefusedBlock& row : refused_blocks()) {
    cur_format = row.format;
    const std::vector<u8> before = read_block(probe);
    const bool untouched = probe.set(kRateControl, row.block).sent.empty() && read_block(probe) == before;
    table.add({codec_name(row.format), hex(row.block), untouched ? row.reason : "TAKEN"});
  }
  print("\nWhat does not fit changes nothing and sends nothing:\n\n" + table.text());
}

void print_version_record(ControlProbe& probe) {
  MarkdownTable table({"when", "record"});
  table.add({"before start-up has filled it", hex_cell(probe.get(UVC_GET_CUR, vendor(kVersionSelector)))});
  uvc_vendor_init(kBuildVersion, kBuildDate);
  table.add({"version " + std::string(kBuildVersion) + " of " + kBuildDate,
             hex_cell(probe.get(UVC_GET_CUR, vendor(kVersionSelector)))});
  print(kVersionText + table.text());
}

}  // namespace

void print_extension_unit(ControlProbe& probe) {
  print_selectors(probe);
  print_settings(probe);
  print_modes(probe);
  print_refused_blocks(probe);
  print_version_record(probe);
}
