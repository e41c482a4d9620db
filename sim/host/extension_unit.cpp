#include "sim/host/extension_unit.h"

namespace sim {

namespace {

constexpr ExtensionField kByte[] = {{"value", 0, 1, 255}};
constexpr ExtensionField kSwitch[] = {{"value", 0, 1, 1}};
constexpr ExtensionField kKeyFrameInterval[] = {{"frames", 0, 1, 255}};
constexpr ExtensionField kFirstParameter[] = {{"parameter", 1, 1, 255}};
constexpr ExtensionField kRateControl[] = {
    {"codec", 0, 1, 3},
    {"mode", 1, 1, 3},
    {"bit rate in kbit/s", 2, 2, 65535},
    {"key-frame interval", 4, 1, 255},
    {"quality 1", 5, 1, 100},
    {"quality 2", 6, 1, 100},
    {"quality 3", 7, 1, 100},
};
// Three equal groups; the first tells everything.
constexpr ExtensionField kVersion[] = {
    {"major", 1, 1, 255},        {"minor", 2, 1, 255}, {"patch", 3, 1, 255},
    {"year", 4, 2, 65535, true}, {"month", 6, 1, 12},  {"day", 7, 1, 31},
};

constexpr ExtensionSelector kSelectors[] = {
    {.selector = 0,
     .name = "encoder_byte_set",
     .meaning = "the byte last set through selector 1",
     .length = 1,
     .fields = kByte,
     .read_only = true},
    {.selector = 1,
     .name = "encoder_byte",
     .meaning = "a byte for the encoder",
     .length = 1,
     .fields = kByte},
    {.selector = 2,
     .name = "on_screen_display",
     .meaning = "on-screen display: accepted and ignored",
     .length = 1,
     .fields = kSwitch},
    {.selector = 3,
     .name = "key_frame_interval",
     .meaning = "key-frame interval in frames (byte 0); setting 0 asks for one key frame",
     .length = 3,
     .fields = kKeyFrameInterval},
    {.selector = 5,
     .name = "private_request",
     .meaning = "1 issues the gadget driver's private request",
     .length = 1,
     .fields = kSwitch},
    {.selector = 9,
     .name = "version_and_update",
     .meaning = "any SET starts the firmware update; reads the version record",
     .length = 22,
     .fields = kVersion,
     .caution = true},
    {.selector = 15,
     .name = "first_parameter",
     .meaning = "common first parameter of H.264 and H.265 (byte 1)",
     .length = 3,
     .fields = kFirstParameter},
    {.selector = 16,
     .name = "rate_control",
     .meaning = "rate control of the committed codec, see below",
     .length = 8,
     .fields = kRateControl},
    {.selector = 24,
     .name = "reboot",
     .meaning = "1 reboots the camera",
     .length = 1,
     .fields = kSwitch,
     .caution = true},
    {.selector = 25,
     .name = "disconnect",
     .meaning = "any SET: the camera takes the USB connection as ended",
     .length = 1,
     .fields = kSwitch,
     .caution = true},
};

}  // namespace

std::span<const ExtensionSelector> extension_selectors() { return kSelectors; }

}  // namespace sim
