// Who started this program by sudo.
#pragma once

namespace sim {

/// Turns root into the user who called sudo, for good, so that what is written is that user's. Anybody else
/// stays who they are. To be called before there are threads.
void become_sudo_user();

}  // namespace sim
