// What the system says of other processes. The only place of the scheduler that asks /proc.
#ifndef ORV_SCHED_PROCESS_H_
#define ORV_SCHED_PROCESS_H_

#include <sys/types.h>

#include <cstdint>
#include <string>

namespace orv {

// One process, told apart from a later one with the same pid by its start. Valid within one boot.
struct ProcessId {
  pid_t pid = 0;            // 0: none
  std::uint64_t start = 0;  // clock ticks after boot, proc(5)'s "starttime"; 0: not known
  friend bool operator==(const ProcessId&, const ProcessId&) = default;
};

// The process that has this pid now. Its start is not known when it is gone or /proc cannot be
// read.
[[nodiscard]] ProcessId process_id(pid_t pid);

// Whether that very process still runs; one that has ended and only waits to be reaped does not.
// When the system cannot be asked (no descriptor, no memory, /proc hidden), whoever has the pid
// counts: starting a second job beside a running one is the worse mistake.
[[nodiscard]] bool process_lives(const ProcessId& process);

// Whether a process with this pid is called exactly "orv_sched". False when it cannot be read.
[[nodiscard]] bool is_scheduler(pid_t pid);

// Names this boot of the machine, 8 hexadecimal digits; kUnknownBoot when it cannot be read.
inline constexpr const char* kUnknownBoot = "-";
[[nodiscard]] std::string boot_name();

}  // namespace orv

#endif  // ORV_SCHED_PROCESS_H_
