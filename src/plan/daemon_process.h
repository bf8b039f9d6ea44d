// The daemon of a queue and a configuration, found among the processes of the machine.
#ifndef ORV_PLAN_DAEMON_PROCESS_H_
#define ORV_PLAN_DAEMON_PROCESS_H_

#include <cstdint>
#include <optional>
#include <string>

namespace orv {

struct DaemonProcess {
  // None: the processes of others are hidden from this user, so that nothing can be said.
  std::optional<bool> running;
  std::uint32_t pid = 0;              // 0: not running
  std::optional<std::int64_t> since;  // Unix seconds
};

// Looks for a process 'orv_sched daemon' that works on the configuration and the queue at these
// paths. The paths of its command line are compared as files; where its working directory may not
// be read, a relative one counts when the end of ours is the same.
[[nodiscard]] DaemonProcess find_daemon(const std::string& config_path,
                                        const std::string& queue_path);

// Whether the process is an 'orv_sched daemon', of whatever queue.
[[nodiscard]] bool is_daemon(std::uint32_t pid);

// When the process began, by /proc; none when that cannot be read.
[[nodiscard]] std::optional<std::int64_t> process_start(std::uint32_t pid);

}  // namespace orv

#endif  // ORV_PLAN_DAEMON_PROCESS_H_
