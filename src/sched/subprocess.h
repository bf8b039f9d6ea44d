// Runs one command as a child in a process group of its own, with a time limit and, when asked,
// with somebody else served while it runs.
#ifndef ORV_SCHED_SUBPROCESS_H_
#define ORV_SCHED_SUBPROCESS_H_

#include <cstdint>
#include <span>

namespace orv {

inline constexpr int kServeIntervalMs = 50;     // waits between two looks, output to a descriptor
inline constexpr int kCaptureIntervalMs = 100;  // the same when output is captured
inline constexpr std::uint32_t kKillAfterSeconds =
    299;  // SIGKILL when more have passed since SIGTERM

struct RunOutcome {
  std::int32_t exit_code = -1;  // 0..255; -1 when the child ended by a signal
  bool timed_out = false;
  bool cancelled = false;
  int exec_error = 0;  // errno when the program could not be executed (its exit code is then 127)
};

// Called while the child runs. True asks for the child to be stopped.
struct PollCallback {
  bool (*poll)(void* context) = nullptr;
  int (*wait_fd)(void* context) = nullptr;  // may be null; -1: nothing to wait for now
  void* context = nullptr;
};

struct CommandOptions {
  std::span<const char* const> env;  // "NAME=value" strings added to the environment
  std::uint32_t timeout_s = 0;       // whole seconds until SIGTERM; 0 stops it at the first look
  std::uint32_t kill_after_s = kKillAfterSeconds;
};

// `argv` ends with a null pointer; its first element is searched in the PATH. The child gets
// default signal dispositions, an empty signal mask, the caller's standard input and no other
// descriptor but its output. Each form returns 0 when the child was started and reaped, -1 when a
// pipe or the fork failed (errno says why). The run ends when the child ends, whoever still holds
// its output; what it left running is left alone.
//
// Output captured: at most output.size() - 1 bytes, NUL-terminated; the rest is read and dropped.
[[nodiscard]] int run_command_captured(const char* const* argv, const CommandOptions& options,
                                       std::span<char> output, RunOutcome& outcome);
// Output to `out_fd` (-1: the caller's own standard output and error).
[[nodiscard]] int run_command(const char* const* argv, const CommandOptions& options, int out_fd,
                              const PollCallback* callback, RunOutcome& outcome);

}  // namespace orv

#endif  // ORV_SCHED_SUBPROCESS_H_
