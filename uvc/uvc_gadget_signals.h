// Signals: the handlers only store words, since they may run while their own thread holds a lock of the
// logger or of the C library; the main thread does what they ask for. If it does not come to that, a timer
// ends the process.
#pragma once

/// Handler of SIGINT and SIGTERM: asks the service to end and gives it 0.7 s for that; then the process ends
/// with status 0 as it is.
void exitfunction(int signal);

/// SIGUSR1 asks for the print level to be read again. Main thread, once.
void install_reload_handler();
/// SIGINT and SIGTERM end the service from here on. Main thread, once.
void install_exit_handlers();

/// Does what the handlers have asked for: says that the service ends, reads the print level. Main thread, in
/// every loop that may last.
void serve_signals();

/// Name of this process in the print configuration.
constexpr char kProcessName[] = "uvc_gadget";
