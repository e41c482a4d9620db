#include "sim/app/sudo_user.h"

#include <grp.h>
#include <pwd.h>
#include <sys/prctl.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>

namespace sim {

void become_sudo_user() {
  const char* const name = std::getenv("SUDO_USER");
  const passwd* const user = geteuid() == 0 && name ? getpwnam(name) : nullptr;
  if (!user || user->pw_uid == 0) return;
  if (initgroups(name, user->pw_gid) != 0 || setgid(user->pw_gid) != 0 || setuid(user->pw_uid) != 0) {
    std::perror("becoming the user who called sudo");
    std::exit(2);
  }
  setenv("HOME", user->pw_dir, 1);
  prctl(PR_SET_DUMPABLE, 1);  // a debugger may look at it as at any program of the user's
}

}  // namespace sim
