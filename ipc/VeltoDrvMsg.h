// Client of the control-message channel: a sender for every command of the system server. A sender fills one
// zeroed record; one-way senders return 0 whether or not the record could be sent, requests wait for the
// reply and return its status (0 is success, also when no reply could be had) unless said otherwise. Any
// thread may send once VeltoDrvInit has returned; the driver's lock serialises whole transactions.
#pragma once

#include "common/bytes.h"
#include "ipc/velto_commands.h"

/// Connects with a process id of 1..24. 0 or -1.
i32 VeltoDrvInit(i32 process_id);
/// Disconnects; the queue stays. Senders then run without lock on the queue last known.
void VeltoDrvExit();
/// Stores an id of 1..24, or 1 in place of any other.
void SetVeltoProcess(i32 process_id);
void SetVeltoQueue(i32 queue);

struct VeltoMemory {
  u32 address;  ///< physical; 0: there is none
  u32 size;     ///< bytes
};

/// A frame, or a stream's data block, in the AV memory pool: the 14 words of a record from its byte 24 on.
struct VeltoFrame {
  i32 pool_offset;  ///< bytes from the pool's start
  i32 serial;
  i32 size;  ///< bytes
  i32 word36, word40;
  i32 stream_type;
  i32 word48, word52, word56, word60, word64, word68, word72, word76;
};
static_assert(sizeof(VeltoFrame) == 14 * sizeof(i32));

struct VeltoSevenWords {
  i32 words[7];
};
struct VeltoThreeWords {
  i32 words[3];
};

/// Command 1. The address is 0 unless the status is.
i32 VeltoGetMemory(VeltoMemory& memory);
i32 VeltoSend2();

/// Commands 3 and 8 fill all words of `frame` for its stream type. The serial becomes -1 if the status is
/// anything but 0.
i32 VeltoGetFrame3(VeltoFrame& frame);
i32 VeltoGetFrame8(VeltoFrame& frame);
/// Command 4: all words of `frame` for its serial and stream type.
i32 VeltoGetFrame4(VeltoFrame& frame);
/// Command 5: for its serial and stream type, all words but serial, stream type and words 60, 72 and 76.
i32 VeltoGetFrame5(VeltoFrame& frame);
/// Command 9: the same words for its stream type. Returns the serial, or -1 when the status is -1, or -2 when
/// it is any other but 0.
i32 VeltoGetFrame9(VeltoFrame& frame);
/// Command 6, one-way, sends serial and stream type.
i32 VeltoSend6(const VeltoFrame& frame);
/// Command 7: pool offset and size of the data block for the stream type. Returns the size.
i32 VeltoGetBlock(VeltoFrame& frame);

/// Command 10.
i32 SendEncoderSettings(const EncoderSettingsMessage& message);

/// One-way commands 11 to 27 and requests 20 and 21; their values are the server's matter.
i32 VeltoSend11(const VeltoSevenWords& words);
i32 VeltoSend12(i32 value);
i32 VeltoSend13(i32 first, i32 second);  ///< sends first << 16 | second
i32 VeltoSend15(i32 value);
i32 VeltoSend16(i32 value);
i32 VeltoSend17(i32 value);
i32 VeltoSend18(i32 value);
i32 VeltoSend19(i32 value);
i32 VeltoRequest20(i32 value);
i32 VeltoRequest21(const char* text);  ///< at most 127 characters, else -1 and nothing is sent
i32 VeltoSend22(i32 value);
i32 VeltoSend23(i32 value);
i32 VeltoSend24(i32 value, const char* text);  ///< the first 60 characters, then without terminator
i32 VeltoSend25(i32 value, const char* text);
i32 VeltoSend26(i32 value);
i32 VeltoSend27(i32 value);

/// Commands from 256 on, pan and tilt.
i32 VeltoPtzMode(i32 code);
i32 VeltoSend256(i32 value);  ///< the same command as VeltoPtzMode
i32 VeltoPtzNotify(i32 value);
i32 VeltoPtzGetPosition(i32& position);
i32 VeltoPtzMotion(i32 motion);  ///< 0 stop, 1..4 a direction
i32 VeltoPtzSetPosition(const VeltoThreeWords& position);
i32 VeltoPtzGetAbsolute(VeltoThreeWords& position);
