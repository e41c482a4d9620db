// The stream that the streaming loop feeds. The control thread may end it and begin another one at any
// moment, behind the loop's back: the loop remembers which stream is its own. Main thread only.
#pragma once

/// Makes the stream that runs now the loop's own.
void adopt_stream();

/// Whether the loop may go on feeding its stream: the host still wants it, it did not end and begin anew, and
/// the service is not ending.
bool stream_goes_on();
