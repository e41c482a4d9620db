// What the simulated camera's descriptors announce, beside the service's tables and the host's names.
#include "sim/host/usb_descriptors.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <numeric>
#include <optional>
#include <span>
#include <string>
#include <vector>

#include "sim/host/host_controls.h"
#include "uvc/uvc_class_control.h"

namespace {

// Of a bit that UVC reserves.
constexpr u8 kNone = 0;

// The selectors of the bits of bmControls, from bit 0 on, as UVC numbers them.
constexpr u8 kCameraTerminalSelectors[] = {1,  2,  3,  4,  5,  6,     7,     9, 10, 11,
                                           12, 13, 14, 15, 16, kNone, kNone, 8, 17};
constexpr u8 kProcessingUnitSelectors[] = {2, 3, 6, 7, 8, 9, 10, 12, 1, 4, 5, 16, 11, 13, 14, 15, 17, 18};
constexpr auto kExtensionUnitSelectors = [] {
  std::array<u8, 32> selectors;
  std::iota(selectors.begin(), selectors.end(), u8{1});
  return selectors;
}();

constexpr u8 kClassDescriptor = 0x24;

struct UnitRow {
  const char* bits;  // their name in platform/uvc_units.h
  u8 entity;
  u8 subtype;           // of its descriptor
  std::size_t size_at;  // of bControlSize in the descriptor; bmControls follows
  std::span<const u8> selectors;
  bool named;  // the host knows its controls by name
};
const UnitRow kUnits[] = {
    {"kCameraTerminalBits", kCameraTerminal, 2, 14, kCameraTerminalSelectors, true},
    {"kProcessingUnitBits", kProcessingUnit, 5, 7, kProcessingUnitSelectors, true},
    {"kExtensionUnitBits", kExtensionUnit, 6, 23, kExtensionUnitSelectors, false},
};

// bmControls of a unit; nothing when there is no descriptor of it.
std::optional<u32> announced(const UnitRow& unit) {
  const std::vector<u8> bytes = sim::configuration_descriptor();
  std::span<const u8> rest(bytes);
  for (; !rest.empty(); rest = rest.subspan(rest[0])) {
    if (rest[1] != kClassDescriptor || rest[2] != unit.subtype || rest[3] != unit.entity) continue;
    const std::size_t size = rest[unit.size_at];
    u32 bits = 0;
    for (std::size_t i = 0; i < size; ++i) bits |= u32{rest[unit.size_at + 1 + i]} << 8 * i;
    return bits;
  }
  return {};
}

const Unit& service_unit(u8 entity) { return **std::ranges::find(uvc_units(), i32{entity}, &Unit::entity); }

// Whether GET_INFO says that a control can be read or set.
bool usable(const Control& control) { return control.info.count > 0 && control.info.bytes[0] != 0; }

bool has_row(const Unit& unit, u8 selector) {
  return std::ranges::any_of(unit.controls,
                             [&](const Control& row) { return row.selector == selector && usable(row); });
}

bool has_name(u8 entity, u8 selector) {
  return std::ranges::any_of(sim::host_controls(), [&](const sim::HostControl& control) {
    return control.entity == entity && control.selector == selector;
  });
}

TEST(UsbDescriptors, AnnounceTheControlsThatTheServiceHas) {
  for (const UnitRow& row : kUnits) {
    const std::optional<u32> bits = announced(row);
    ASSERT_TRUE(bits) << "no descriptor of entity " << int(row.entity);
    const Unit& unit = service_unit(row.entity);
    for (std::size_t bit = 0; bit < row.selectors.size(); ++bit) {
      const u8 selector = row.selectors[bit];
      if (selector == kNone) continue;
      const std::string control = "selector " + std::to_string(selector) + " of entity " +
                                  std::to_string(row.entity) + ": bit " + std::to_string(bit) + " of " +
                                  row.bits + " in platform/uvc_units.h is ";
      if (*bits >> bit & 1) {
        EXPECT_TRUE(has_row(unit, selector) || usable(unit.other))
            << control << "1, but the service has no row for it";
        EXPECT_TRUE(!row.named || has_name(row.entity, selector))
            << control << "1, but sim/host/host_controls.cpp has no name for it";
      } else {
        EXPECT_FALSE(has_row(unit, selector)) << control << "0, but the service has a row for it";
        EXPECT_FALSE(has_name(row.entity, selector))
            << control << "0, but sim/host/host_controls.cpp has a name for it";
      }
    }
    for (const Control& control : unit.controls) {
      EXPECT_TRUE(control.selector == 0 || std::ranges::count(row.selectors, control.selector) == 1)
          << "UVC has no bit for selector " << int(control.selector) << " of entity " << int(row.entity);
    }
    if (row.selectors.size() < 32) {
      EXPECT_EQ(*bits >> row.selectors.size(), 0u) << row.bits << " has bits that UVC does not define";
    }
  }
}

}  // namespace
