// Pan and tilt: relays to the system server, which owns the head, and the serial line to a VISCA controller
// for a build in which this process drives the head itself. A frame on the line ends with the byte 0xFF.
// The service itself calls neither: its controls send frames through visca_link.h.
#pragma once

#include "common/word.h"

/// The relays, commands from 256 on of the control-message channel (ipc/VeltoDrvMsg.h). Those with no result
/// of their own return what the sender returned.
i32 ptz_notify(i32 value);
i32 ptz_mode(i32 code);              ///< sends 2 for code 1, 1 for code 0xFF, else 0
i32 ptz_pan(i32 selector, i32 on);   ///< motion 1 for selector 1, 2 for any other; a stop unless `on`
i32 ptz_tilt(i32 selector, i32 on);  ///< motion 3 for selector 1, 4 for any other; a stop unless `on`
i32 ptz_stop();
i32 ptz_set_pos(i32 pan, i32 tilt);  ///< in the server's units
/// The absolute position: second reply word << 16 | third. Prints a message and returns 0 when the server
/// refuses with -1.
u32 get_apantilt();
/// The server's position word, or 0 when it refuses with -1.
u32 ptz_get_pos();

constexpr i32 kUartTransmitRoom = 1024;  ///< bytes of UartExchange::transmit
constexpr i32 kUartFrameRoom = 16;       ///< bytes of UartExchange::receive
constexpr i32 kUartReplyRoom = 51;       ///< bytes that uart_read_buf and uart_ack store at most

/// What the serial worker and its client share. The client clears read_done, fills transmit and write_length,
/// sets write_requested and then read_requested, and waits for read_done; until then buffers and lengths
/// belong to the worker. The worker clears a request when it begins to serve it.
struct UartExchange {
  Word write_requested, read_requested, read_done;
  i32 write_length = 0;  ///< outside 0..kUartTransmitRoom nothing is written, but a message printed
  i32 read_length = 0;   ///< bytes in receive, the terminator included; 0: no answer
  u8 transmit[kUartTransmitRoom] = {};
  u8 receive[kUartFrameRoom] = {};
};

/// Opens /dev/ttyAMA2, raw, 115200 baud, 8N1, until the process ends. A line that cannot be opened counts as
/// closed from then on.
void tty_open();

/// Thread entry of the worker; `exchange` is the address of a UartExchange that outlives it. Opens the line
/// and never returns. The thread can be cancelled in its pause and where it waits for the line.
void* uart_pthread(void* exchange);
/// One turn: at most one write and one read, then a pause of 10 ms.
void uart_turn(UartExchange& exchange);

// For clients that use the line themselves: one thread at a time, and never beside the worker. The wait for
// the first byte polls at full speed, a bounded number of times; every further read blocks until its byte
// comes, and can be cancelled.

/// Returns 0, or -1 when the line is closed. Prints a message and returns -1 when fewer than `length` bytes
/// could be written.
i32 uart_write_buf(const u8* buffer, i32 length);
/// Reads a reply up to its terminator, of at most min(maximum, kUartReplyRoom) bytes, which `buffer` must
/// hold. Returns how many bytes precede the terminator. For a byte that could not be read it prints a message
/// and counts what `buffer` held in its place.
i32 uart_read_buf(u8* buffer, i32 maximum);
/// Reads a reply like uart_read_buf, but does not return its length.
void uart_ack(u8 (&buffer)[kUartReplyRoom]);
