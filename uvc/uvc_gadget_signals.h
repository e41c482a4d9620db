// Signals: the handlers only store words, since they may run while their own thread holds a lock of the
// logger or of the C library, and the main thread does what they ask for. A timer limits how long the end
// of the process may take.
#pragma once

/// Handler of SIGINT and SIGTERM: asks the service to end and gives it 0.7 s for that; after these the
/// process ends at once, with status 0.
void exitfunction(int signal);

/// Makes SIGUSR1 ask for the print level to be read again. Main thread, once.
void install_reload_handler();
/// Makes SIGINT and SIGTERM end the service. Main thread, once.
void install_exit_handlers();

/// Does what the handlers have asked for: announces the end of the service, reads the print level. The main
/// thread calls it in every loop that may last.
void serve_signals();

/// The name of this process in the print configuration.
constexpr char kProcessName[] = "uvc_gadget";
