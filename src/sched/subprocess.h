// Runs one command as a child in a process group of its own, with a time limit, and with others
// served while it runs.
#ifndef ORV_SCHED_SUBPROCESS_H_
#define ORV_SCHED_SUBPROCESS_H_

#include <sys/types.h>

#include <cstdint>
#include <span>

namespace orv {

inline constexpr int kServeIntervalMs = 50;     // waits between two polls, output to a descriptor
inline constexpr int kCaptureIntervalMs = 100;  // the same when output is captured
inline constexpr std::uint32_t kKillAfterSeconds =
    299;  // SIGKILL when more have passed since SIGTERM

struct RunOutcome {
  std::int32_t exit_code = -1;  // 0..255; -1 when the child ended by a signal
  bool timed_out = false;
  bool cancelled = false;
  int exec_error = 0;  // errno when the program could not be executed (its exit code is then 127)
};

// What is done for others while the child runs, and whether they want it stopped.
enum class StopRequest {
  None,
  Terminate,  // SIGTERM, and SIGKILL when that did not help in time
  Kill,       // after Terminate: SIGKILL now
};
struct Poller {
  // Called at least every kServeIntervalMs, and at once when `wait_fd` is readable.
  StopRequest (*poll)(void* context) = nullptr;
  int (*wait_fd)(void* context) = nullptr;  // may be null; -1: nothing to wait for now
  void* context = nullptr;
};

// Called in the parent once the child has its pid, before it executes the program. Should the
// parent die in here, the child leaves without having done anything.
struct BeforeExec {
  void (*call)(void* context, pid_t child) = nullptr;
  void* context = nullptr;
};

struct CommandOptions {
  std::span<const char* const> env;  // "NAME=value" strings added to the environment
  std::uint32_t timeout_s = 0;       // whole seconds until SIGTERM; 0 stops it at the first poll
  std::uint32_t kill_after_s = kKillAfterSeconds;
  BeforeExec before_exec;
};

// `argv` ends with a null pointer; its first element is searched in the PATH. The child gets
// default signal dispositions, an empty signal mask, the caller's standard input and no other
// descriptor but its output. Each form returns 0 when the child was started and reaped, -1 when a
// pipe, a socket or the fork failed (errno says why). The run ends when the child ends, whoever
// still holds its output; what it left running is left alone. A stopped child is continued when it
// is told to end.
//
// Output captured: at most output.size() - 1 bytes, NUL-terminated; the rest is read and dropped.
[[nodiscard]] int run_command_captured(const char* const* argv, const CommandOptions& options,
                                       std::span<char> output, RunOutcome& outcome);
// Output to `out_fd` (-1: the caller's own standard output and error).
[[nodiscard]] int run_command(const char* const* argv, const CommandOptions& options, int out_fd,
                              const Poller* poller, RunOutcome& outcome);

}  // namespace orv

#endif  // ORV_SCHED_SUBPROCESS_H_
