// What the control tables do not contain: standard names, examples, how a Linux host shows a control, and
// the page's prose.
#pragma once

#include <span>
#include <vector>

#include "common/bytes.h"

struct ControlText {
  u8 entity, selector;
  const char* name;                            ///< from the UVC standard
  const char* unit;                            ///< of its numbers, or what they mean
  std::vector<std::vector<u8>> examples = {};  ///< for SET_CUR; if empty, the ends of the range, and beyond
};
std::span<const ControlText> control_texts();

/// What `v4l2-ctl --list-ctrls-menus` shows of a control that is not a plain number of its range.
struct LinuxText {
  const char* control;  ///< as in sim/host/host_controls.h
  const char* shows;    ///< null if it does not show the control
};
std::span<const LinuxText> linux_texts();

struct VendorExample {
  u8 selector;
  i32 format;  ///< UvcFormat
  bool streams;
  std::vector<u8> data;
};
/// Returns the examples. The last one starts the firmware update, which gives up the node.
std::span<const VendorExample> vendor_examples();

struct RateMode {
  i32 format;
  i32 mode;
  const char* parameters;
};
/// Returns every codec and mode.
std::span<const RateMode> rate_modes();

/// A rate-control block that the service refuses, and why.
struct RefusedBlock {
  i32 format;
  std::vector<u8> block;
  const char* reason;
};
std::span<const RefusedBlock> refused_blocks();

extern const char kIntroduction[];
extern const char kDescriptorsText[];
extern const char kVendorText[];
extern const char kRateControlText[];
extern const char kVersionText[];
extern const char kStreamingText[];
extern const char kFrameSizesText[];
extern const char kStreamStartText[];
extern const char kHostLinesText[];
extern const char kRefusedText[];
extern const char kOddities[];
