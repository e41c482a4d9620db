// The camera's own controls: the image settings of the processing unit, and exposure, zoom, pan and tilt of
// the camera terminal. What the host sets goes to the system server as VISCA frames; readings come from the
// server's camera-value cache or, while that is not valid, by inquiry. Control thread only.
#pragma once

#include "uvc/uvc_class_row.h"

enum UvcCameraTerminalSelector : u8 {
  CT_AE_MODE_CONTROL = 2,
  CT_EXPOSURE_TIME_ABSOLUTE_CONTROL = 4,
  CT_FOCUS_ABSOLUTE_CONTROL = 6,
  CT_FOCUS_RELATIVE_CONTROL = 7,
  CT_ZOOM_ABSOLUTE_CONTROL = 11,
  CT_ZOOM_RELATIVE_CONTROL = 12,
  CT_PANTILT_ABSOLUTE_CONTROL = 13,
  CT_PANTILT_RELATIVE_CONTROL = 14,
  CT_ROLL_ABSOLUTE_CONTROL = 15,
};

enum UvcProcessingUnitSelector : u8 {
  PU_BACKLIGHT_COMPENSATION_CONTROL = 1,
  PU_BRIGHTNESS_CONTROL = 2,
  PU_CONTRAST_CONTROL = 3,
  PU_GAIN_CONTROL = 4,
  PU_POWER_LINE_FREQUENCY_CONTROL = 5,
  PU_HUE_CONTROL = 6,
  PU_SATURATION_CONTROL = 7,
  PU_SHARPNESS_CONTROL = 8,
  PU_GAMMA_CONTROL = 9,
  PU_WHITE_BALANCE_TEMPERATURE_CONTROL = 10,
  PU_WHITE_BALANCE_TEMPERATURE_AUTO_CONTROL = 11,
  PU_WHITE_BALANCE_COMPONENT_CONTROL = 12,
  PU_WHITE_BALANCE_COMPONENT_AUTO_CONTROL = 13,
  PU_DIGITAL_MULTIPLIER_CONTROL = 14,
};

/// kCameraTerminal and kProcessingUnit of platform/uvc_units.h.
extern const Unit uvc_camera_terminal;
extern const Unit uvc_processing_unit;

/// Turns the head to a position in arc seconds. In steps of 270, a position that does not fit 16 bits wraps.
void uvc_apantilt_process(i32 pan, i32 tilt);
/// Sets the head in motion: direction 1 is right or up, 255 left or down, any other none. The head moves in
/// one direction at a time, and pan takes precedence. Deliberate: the speeds are not used.
void uvc_rpantilt_process(u8 pan_direction, u8 pan_speed, u8 tilt_direction, u8 tilt_speed);
