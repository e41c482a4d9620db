// Pan and tilt: relays to the system server, which owns the head, and the serial line to a VISCA controller
// for a build in which this process drives the head itself. A frame on the line ends with the byte 0xFF.
// The service sends through the relays only; nothing in it starts the serial worker.
#pragma once

#include "common/word.h"

/// The relays, commands 256 to 261 of the control-message channel (ipc/VeltoDrvMsg.h). Those without a result
/// of their own return what the sender returns.
i32 ptz_notify(i32 value);
i32 ptz_mode(i32 code);              ///< tells the server 2 for code 1, 1 for code 0xFF, else 0
i32 ptz_pan(i32 selector, i32 on);   ///< motion 1 for selector 1, 2 for any other; without `on` a stop
i32 ptz_tilt(i32 selector, i32 on);  ///< motion 3 for selector 1, 4 for any other; without `on` a stop
i32 ptz_stop();
i32 ptz_set_pos(i32 pan, i32 tilt);  ///< in the server's units
/// The absolute position: second reply word << 16 | third; 0 after a report when the server refuses with -1.
u32 get_apantilt();
/// The server's position word; 0 when it refuses with -1.
u32 ptz_get_pos();

constexpr i32 kUartTransmitRoom = 1024;  ///< bytes of UartExchange::transmit
constexpr i32 kUartFrameRoom = 16;       ///< bytes of UartExchange::receive
constexpr i32 kUartReplyRoom = 51;       ///< most bytes that uart_read_buf and uart_ack store

/// What the serial worker and its client share. The client clears read_done, fills transmit and write_length,
/// sets write_requested and after it read_requested, and waits for read_done; buffers and lengths are the
/// worker's in between. The worker clears a request when it takes it up.
struct UartExchange {
  Word write_requested, read_requested, read_done;
  i32 write_length = 0;  ///< outside 0..kUartTransmitRoom nothing is written, after a report
  i32 read_length = 0;   ///< bytes in receive, the terminator included; 0: no answer
  u8 transmit[kUartTransmitRoom] = {};
  u8 receive[kUartFrameRoom] = {};
};

/// Opens /dev/ttyAMA2, raw, 115200 baud, 8N1, for the rest of the process. On failure the line counts as not
/// open.
void tty_open();

/// Thread entry of the worker; `exchange` is the address of a UartExchange that outlives it. Opens the line
/// and never returns; can be cancelled at its pause and where it waits for the line.
void* uart_pthread(void* exchange);
/// One turn: at most one write and one read, then a pause of 10 ms.
void uart_turn(UartExchange& exchange);

// For clients that use the line themselves; one thread at a time, and not beside the worker. The wait for the
// first byte polls at full speed, a bounded number of times; from then on a read waits for its byte and can
// be cancelled meanwhile.

/// 0; or -1 when the line is not open, or after a report when less than `length` bytes could be written.
i32 uart_write_buf(const u8* buffer, i32 length);
/// Reads a reply up to its terminator, of at most min(maximum, kUartReplyRoom) bytes, which `buffer` must
/// hold. Returns the bytes before the terminator. A byte that could not be read is reported and counts as
/// what `buffer` held in its place.
i32 uart_read_buf(u8* buffer, i32 maximum);
/// Reads a reply like uart_read_buf, without telling its length.
void uart_ack(u8 (&buffer)[kUartReplyRoom]);
