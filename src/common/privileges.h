// Giving up root for good, before a less trusted program is executed.
#ifndef ORV_COMMON_PRIVILEGES_H_
#define ORV_COMMON_PRIVILEGES_H_

namespace orv {

// Becomes `account` with its groups (groups, then group, then user) and makes sure that root cannot
// be had back. 0 at once when the process is not root. -1 on failure, the process as far as it got:
// the caller must then not go on. Every outcome is logged, an unprivileged caller's apart.
[[nodiscard]] int drop_privileges(const char* account);

}  // namespace orv

#endif  // ORV_COMMON_PRIVILEGES_H_
