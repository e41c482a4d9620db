// The encoder-settings record: filled from the committed stream settings and the rate control of their codec,
// and sent to the system server with command 10.
#pragma once

#include "common/bytes.h"

/// Stores the committed size and rate in the record, then the codec and its rate control, and sends it as
/// notify_stream_start does. An unknown format stores size and rate only and sends nothing.
void apply_encoder_settings(i32 columns, i32 lines, i32 format, i32 rate);

/// Refreshes the record's codec and rate control for the committed format and sends it. Does nothing for an
/// unknown format. Control thread only.
void refresh_encoder_settings();

/// Sends the record as it is, with the message that a stream runs or that it has stopped.
void notify_stream_start();
void notify_stream_stop();

/// The key-frame interval in frames: the first parameter of the committed codec's current mode, or of H.264's
/// for a codec without key frames.
i32 get_key_frame_interval();
/// Stores the interval in every mode of H.264 and H.265 and sends nothing.
void store_key_frame_interval(i32 frames);
/// Stores it likewise, then refreshes the rate control of the record's codec and sends the record.
void set_key_frame_interval(i32 frames);

/// Scales the bit rates and quantisers of the committed format's rate control and sends the record. `quality`
/// is in ten-thousandths, 1..10000; other values mean 10000. An entry point for the system side.
void change_quality(i32 quality);
/// Stores the rate in frames per second in the record and sends it. An entry point for the system side.
void set_frame_rate(i32 rate);
