#include "common/privileges.h"

#include <grp.h>
#include <pwd.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "common/log.h"

namespace orv {

int drop_privileges(const char* account) {
  if (::geteuid() != 0) return 0;
  errno = 0;
  const passwd* const entry = ::getpwnam(account);
  if (entry == nullptr) {
    log_msg(LogLevel::Error,
            "running as root, but the '%s' user does not exist: run 'orv_setup --repair' or create "
            "it manually (useradd --system %s) first",
            account, account);
    return -1;
  }
  const uid_t uid = entry->pw_uid;
  const gid_t gid = entry->pw_gid;
  // Groups before the user: afterwards these calls are not permitted any more.
  if (::initgroups(account, gid) != 0) {
    log_msg(LogLevel::Error, "initgroups(%s) failed: %s", account, std::strerror(errno));
    return -1;
  }
  if (::setgid(gid) != 0) {
    log_msg(LogLevel::Error, "setgid(%d) failed: %s", static_cast<int>(gid), std::strerror(errno));
    return -1;
  }
  if (::setuid(uid) != 0) {
    log_msg(LogLevel::Error, "setuid(%d) failed: %s", static_cast<int>(uid), std::strerror(errno));
    return -1;
  }
  // Reveals an account that is root by another name, and a saved user id that was kept.
  if (::setuid(0) == 0) {
    log_msg(LogLevel::Error,
            "could still regain root after dropping privileges: refusing to continue");
    return -1;
  }
  log_msg(LogLevel::Info, "dropped root, now running as %s (uid=%d gid=%d)", account,
          static_cast<int>(uid), static_cast<int>(gid));
  return 0;
}

}  // namespace orv
