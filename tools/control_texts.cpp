#include "tools/control_texts.h"

#include "platform/uvc_units.h"
#include "uvc/uvc_class_camera.h"
#include "uvc/uvc_state.h"

#define SELECTOR(constant) constant, #constant

namespace {

const ControlText kControls[] = {
    {kCameraTerminal, SELECTOR(CT_AE_MODE_CONTROL), "0 manual, 1 automatic"},
    {kCameraTerminal, SELECTOR(CT_EXPOSURE_TIME_ABSOLUTE_CONTROL), "0.1 ms"},
    {kCameraTerminal, SELECTOR(CT_FOCUS_ABSOLUTE_CONTROL), "mm"},
    {kCameraTerminal, SELECTOR(CT_FOCUS_RELATIVE_CONTROL), "-", {{1, 1}}},
    {kCameraTerminal, SELECTOR(CT_ZOOM_ABSOLUTE_CONTROL), "lens steps: 0 wide, 16384 tele"},
    {kCameraTerminal,
     SELECTOR(CT_ZOOM_RELATIVE_CONTROL),
     "1 tele, 255 wide, 0 stop; digital zoom; speed",
     {{1, 0, 4}, {255, 0, 4}, {0, 0, 0}}},
    {kCameraTerminal, SELECTOR(CT_PANTILT_ABSOLUTE_CONTROL), "arc seconds: pan, tilt"},
    {kCameraTerminal,
     SELECTOR(CT_PANTILT_RELATIVE_CONTROL),
     "1 right, 255 left, 0 stop; speed; 1 up, 255 down, 0 stop; speed",
     {{1, 1, 0, 1}, {255, 7, 0, 1}, {0, 1, 1, 1}, {0, 1, 255, 7}, {1, 7, 1, 7}, {0, 1, 0, 1}}},
    {kCameraTerminal,
     SELECTOR(CT_ROLL_ABSOLUTE_CONTROL),
     "picture mode, 1 to 4",
     {{0, 0}, {1, 0}, {4, 0}, {5, 0}}},
    {kProcessingUnit, SELECTOR(PU_BACKLIGHT_COMPENSATION_CONTROL), "0 off, 1 on"},
    {kProcessingUnit, SELECTOR(PU_BRIGHTNESS_CONTROL), "steps"},
    {kProcessingUnit, SELECTOR(PU_CONTRAST_CONTROL), "steps"},
    {kProcessingUnit, SELECTOR(PU_GAIN_CONTROL), "steps"},
    {kProcessingUnit, SELECTOR(PU_POWER_LINE_FREQUENCY_CONTROL), "0 off, 1 50 Hz, 2 60 Hz"},
    {kProcessingUnit, SELECTOR(PU_HUE_CONTROL), "0.01 degree"},
    {kProcessingUnit, SELECTOR(PU_SATURATION_CONTROL), "steps"},
    {kProcessingUnit, SELECTOR(PU_SHARPNESS_CONTROL), "steps"},
    {kProcessingUnit, SELECTOR(PU_GAMMA_CONTROL), "number of a curve"},
    {kProcessingUnit, SELECTOR(PU_WHITE_BALANCE_TEMPERATURE_CONTROL), "kelvin"},
    {kProcessingUnit, SELECTOR(PU_WHITE_BALANCE_TEMPERATURE_AUTO_CONTROL), "0 off, 1 on", {{0}, {1}}},
    {kProcessingUnit, SELECTOR(PU_WHITE_BALANCE_COMPONENT_CONTROL), "steps: blue, red"},
    {kProcessingUnit, SELECTOR(PU_WHITE_BALANCE_COMPONENT_AUTO_CONTROL), "0 off, 1 on", {{0}, {1}}},
    {kProcessingUnit, SELECTOR(PU_DIGITAL_MULTIPLIER_CONTROL), "steps"},
};

constexpr LinuxText kLinux[] = {
    {"auto_exposure", "(menu) 1: Manual Mode; see the oddities"},
    {"power_line_frequency", "(menu) 0: Disabled, 1: 50 Hz, 2: 60 Hz"},
    {"white_balance_automatic", "(bool) default 1"},
    {"roll_absolute", nullptr},
    {"white_balance_component_auto", nullptr},
    {"digital_multiplier", nullptr},
};

const VendorExample kVendorExamples[] = {
    {1, kFormatMjpeg, false, {7}},       {3, kFormatH264, true, {30, 0, 0}},
    {3, kFormatH265, true, {25, 0, 0}},  {3, kFormatH265, true, {0, 0, 0}},
    {3, kFormatMjpeg, true, {30, 0, 0}}, {3, kFormatH264, false, {60, 0, 0}},
    {5, kFormatMjpeg, false, {0}},       {5, kFormatMjpeg, false, {1}},
    {15, kFormatH264, true, {0, 1, 0}},  {24, kFormatMjpeg, false, {0}},
    {24, kFormatMjpeg, false, {1}},      {25, kFormatMjpeg, false, {0}},
    {9, kFormatMjpeg, false, {0}},
};

constexpr RateMode kRateModes[] = {
    {kFormatMjpeg, 0, "bit rate"},
    {kFormatMjpeg, 1, "bit rate, highest and lowest quality"},
    {kFormatMjpeg, 2, "quality"},
    {kFormatH264, 0, "interval, bit rate"},
    {kFormatH264, 1, "interval, bit rate, lowest and highest quantiser"},
    {kFormatH264, 2, "interval, three quantisers"},
    {kFormatH264, 3, "interval, bit rate"},
    {kFormatH265, 0, "interval, bit rate"},
    {kFormatH265, 1, "interval, bit rate, lowest and highest quantiser"},
    {kFormatH265, 2, "interval, two quantisers"},
    {kFormatH265, 3, "interval, bit rate"},
};

const RefusedBlock kRefused[] = {
    {kFormatMjpeg, {0, 0, 0, 0x30, 60, 0, 0, 0}, "another codec's"},
    {kFormatMjpeg, {1, 3, 0, 0, 0, 80, 0, 0}, "MJPEG has no mode 3"},
    {kFormatMjpeg, {1, 2, 0, 0, 0, 101, 0, 0}, "quality above 100"},
    {kFormatMjpeg, {1, 0, 0, 0, 0, 0, 0, 0}, "bit rate 0"},
    {kFormatH264, {0, 4, 0, 0x30, 60, 0, 0, 0}, "no mode 4"},
    {kFormatH264, {0, 0, 0, 0x30, 0, 0, 0, 0}, "interval 0"},
    {kFormatH264, {0, 2, 0, 0, 60, 25, 52, 25}, "quantiser above 51"},
    {kFormatH264, {0, 0, 0, 0x30, 60, 0, 0, 1}, "a byte that the mode has no parameter for is not 0"},
    {kFormatH265, {2, 0, 0, 0x30}, "shorter than 8 bytes: the missing ones are 0, so the interval is"},
    {kFormatYuy2, {3, 0, 0, 0, 0, 0, 0, 0}, "YUY2 has no rate control"},
};

}  // namespace

std::span<const ControlText> control_texts() { return kControls; }
std::span<const LinuxText> linux_texts() { return kLinux; }
std::span<const VendorExample> vendor_examples() { return kVendorExamples; }
std::span<const RateMode> rate_modes() { return kRateModes; }
std::span<const RefusedBlock> refused_blocks() { return kRefused; }

const char kIntroduction[] = R"(# Controls

Every class request that the camera answers. A program of the build writes this page from the service's own handlers
(`./dev docs`); a test compares the two. Do not edit it.

| entity | what                                                    | interface          |
|--------|---------------------------------------------------------|--------------------|
| 1      | camera terminal: exposure, zoom, pan and tilt           | 0, video control   |
| 2      | processing unit: image settings                         | 0, video control   |
| 3      | extension unit: encoder tuning, version, update, reboot | 0, video control   |
| any    | probe, commit, still image                              | 1, video streaming |

- The selector is the high byte of `wValue`, the entity the high byte of `wIndex`, the interface its low byte. Only the low
  byte of `wLength` counts.
- Numbers are little-endian. Bytes are hexadecimal, all other numbers decimal; a control of several numbers shows them with
  commas.
- `-` means that nothing is answered: the host receives what the answer buffer held before. No request is stalled.
- The status stays inside the service; the host cannot read it. 0 is success, 4 a value out of range, 5 an unknown entity,
  6 an unknown selector.
- What SET_CUR sends is what the system server receives for it: frames for the camera head, or commands with their words
  (see [wire-formats.md](wire-formats.md)). "Nothing" stays in the service. A refused value changes nothing.
- GET_LEN of a selector that is not listed is 2 in entities 1 and 2, and 1 in entity 3.
- "Linux shows" is what `v4l2-ctl --list-ctrls-menus` prints on a Linux 6.12 host with its own driver.
- The unit "steps" has no physical meaning. Where a value never reaches the camera, the unit is the standard's.
)";

const char kDescriptorsText[] = R"(
## Descriptors

A host finds the controls through descriptors, and these belong to the gadget's kernel module, not to the service: with
another module another GUID, other bits and other frame sizes may be announced, while the service answers as below. The
simulated camera and the module of `rigs/linux/kernel/` announce this (UVC 1.0, one video control and one video streaming
interface):

)";

const char kVendorText[] = R"(
## Extension unit (entity 3)

No Linux control is mapped to it: use `UVCIOC_CTRL_QUERY` with unit 3 (which cannot reach selector 0). GET_INFO answers 3
although its status is 6, and every SET ends with status 0, taken or not. Selectors without a meaning have no effect.
Read here with H.264 committed:

)";

const char kRateControlText[] = R"(
### Rate control (selector 16)

Eight bytes, the same in both directions, describe the codec of the committed format:

| byte | what                                     | range                        |
|------|------------------------------------------|------------------------------|
| 0    | codec: 0 H.264, 1 MJPEG, 2 H.265, 3 YUY2 | that of the committed format |
| 1    | rate-control mode                        | 0..3; MJPEG 0..2             |
| 2, 3 | bit rate in kbit/s                       | 1..65535                     |
| 4    | key-frame interval in frames             | 1..255                       |
| 5..7 | H.264 and H.265: quantisers              | 0..51                        |
|      | MJPEG: quality values                    | 0..100                       |

A byte for which the mode has no parameter is 0. Rates above 65535 kbit/s read as 65535. These are the parameters at the
start, read and set again while the codec streams; while nothing streams, a SET is kept and nothing is sent:

)";

const char kVersionText[] = R"(
### Version record (GET_CUR of selector 9)

22 bytes: 1, then three equal groups of 7 bytes: the version's three hexadecimal digits, the year (high byte first), month,
day. Version and date are those of the build.

)";

const char kStreamingText[] = R"(
## Streaming interface (interface 1)

[wire-formats.md](wire-formats.md) has the layout of the blocks. Probe and commit share one block, still probe and still
commit another.

)";

const char kStreamStartText[] = R"(
### The start of a stream

Every stream but the first after a replug begins with **three payloads of 2 zero bytes**: what the service queued when the
last stream ended. The same payload comes for every 2.5 s in which the encoder is silent. No frame is so small, so a host
drops **every payload of 2 bytes or fewer**, rather than always the first three:

- uvcvideo hands them to an MJPEG, H.264 or H.265 program as frames (`bytesused` is 2); of YUY2 it drops them, so that the
  first frame has sequence number 3.
- In an H.264 or H.265 byte stream they do no harm, since zeros may stand before a start code. A JPEG decoder reports an
  error for each.
- The first frame after them is a key frame.
)";

const char kHostLinesText[] = R"(
## To copy and paste

Each line records about 30 frames of 640x480 into a file. `./dev bed` runs every one of them and decodes the file.
`/dev/video0` is the camera's first node on the host (`v4l2-ctl --list-devices`); ffmpeg 5.1 cannot ask for H.265 itself.
)";

const char kRefusedText[] = R"(
## What Linux refuses

Linux's driver refuses some settings by itself, and the camera never hears of them. `./dev bed` tries these lines:

| after                       | this setting                     | fails with        |
|-----------------------------|----------------------------------|-------------------|
| `white_balance_automatic=1` | `white_balance_temperature=5000` | Permission denied |
| `white_balance_automatic=1` | `blue_balance=100`               | Permission denied |
| -                           | `auto_exposure=0`                | Invalid argument  |
| -                           | `auto_exposure=3`                | Invalid argument  |

So set `white_balance_automatic` to 0 first. A second program that wants to stream is refused as well (Device or resource
busy), while it may read and set controls; a class request that the camera does not answer fails after 5 s.
)";

const char kFrameSizesText[] = R"(
The frame sizes, by `bFrameIndex` and, with its name, `bFormatIndex`:

)";

const char kOddities[] = R"(
## Known oddities

Hosts see these, and other programs of the camera rely on them, so they stay. Each comes with what an integrator can do.

- **Linux reads a control once.** No GET_INFO announces changes by the device itself, so Linux answers from what it read or
  set last: positions, zoom and white balance that changed otherwise do not show, and a refused or ignored value looks
  set. Reload the driver or replug the cable to make Linux read again, or send raw requests.
- **Auto-exposure mode** is 0 (manual) or 1 (automatic), not the bitmap 1, 2, 4, 8 of the standard. GET_MAX is 1 and GET_RES,
  which Linux takes for the bitmap, is 1: the menu has the single entry "1: Manual Mode", and choosing it makes the
  exposure **automatic**. All other values are refused by Linux itself, so that manual exposure needs a raw SET_CUR
  with 0. To the camera any value but 0 is automatic, including 2, 4 and 8; the inquiry returns it as 1.
- **Exposure time** is kept and never reaches the camera. It reads 0, below its minimum, until it is set. Linux shows it as
  inactive unless the mode reads 1.
- **Gain** reads 0 whatever was set, although its minimum is 4. Show the value that was last set.
- **Hue** announces the whole range and refuses every value. Linux reports success and then shows the value that it sent.
  Hide the control.
- **White-balance temperature**: setting it turns the automatic white balance off in the camera, but
  `white_balance_automatic` still shows what Linux knew before. Linux refuses the temperature (permission denied) while that
  shows 1: set it to 0 first.
- **White-balance component** has 4 bytes, but GET_LEN returns 2. Minimum, maximum and resolution are one number: in the
  standard's two fields (blue, red) red has the range 0..0 and step 0, which `v4l2-compliance` calls a failure. A red
  value above 0 is out of range. None of it reaches the camera. Hide both.
- **White-balance component auto** reports a length of 2, but has 1 byte; it is kept, without any effect.
- **Digital multiplier** reads 50 whatever was set, and nothing is sent.
- **Focus** reads 0 and is not sent; its resolution is 0, which Linux shows as step 0. Focus relative answers nothing. Hide
  both.
- **Roll** chooses a picture mode (1 to 4), despite its range of 0..1000; it reads 0.
- **The camera terminal's ranges are reported, not enforced**: zoom 65535 and a position of 30 turns are sent unchanged, and
  a position that does not fit the head's 16-bit steps of 270 arc seconds wraps. Clamp in the host, as Linux does.
- **Position**: GET_CUR returns the last absolute position that was set, not where the head is. After relative motion it is stale.
- **A moving head goes on after the cable is pulled.** Relative pan, tilt and zoom run until a request with direction 0, or to
  the end of the range; when the host goes, the service sends nothing to the head. Send the stop before you close the
  device; after a sudden end, it is the first thing to send to a camera that comes back.
- **Pan and tilt speeds** run from 1 to 7 with default 1, while direction 0 in every limit means "stand still": setting the
  default stops the head. The speeds are ignored. When both directions are set, only pan moves. Linux shows -1..7: its lower
  end is the negated minimum, so -1 is the only value for left and down.
- **Zoom relative** has minimum 0, so that Linux offers 0..4 and raises negative values to 0: zooming out needs
  `zoom_absolute` or a raw request with direction 255. GET_DEF answers nothing; the default that Linux shows is a left-over.
- **Extension unit**: GET_INFO ends with status 6, every SET with status 0. To learn whether a rate-control block was taken,
  read it back.
- **Firmware update and reboot**: any SET of selector 9, whatever its data, closes the video device and starts the updater; a
  1 to selector 24 reboots. Tools that try every selector must leave these two out. Selector 25 tells the camera that the host
  is gone, while the stream goes on.
)";
