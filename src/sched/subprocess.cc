#include "sched/subprocess.h"

#include <errno.h>
#include <fcntl.h>
#include <poll.h>
#include <sched.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cstddef>
#include <cstdio>
#include <memory>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "common/clock.h"
#include "common/scoped_fd.h"

namespace orv {
namespace {

constexpr int kExecFailed = 127;
// How often the served descriptor may still be readable right after it was served before one wait
// leaves it out: whoever floods it, or a descriptor that stays hung up, cannot make us spin. That
// wait is short, because many clients at once look the same, and they wait for their answers.
constexpr int kMaxHotRounds = 8;
constexpr int kHotPauseMs = 2;
constexpr std::size_t kChildStack = std::size_t{64} << 10;  // what is not touched takes no memory
// How long a child that was let go is waited for until it executes its program. Longer takes only a
// program on a mount that does not answer.
constexpr int kExecPatienceMs = 2000;

std::int64_t whole_seconds_since(std::int64_t start_ns) {
  return (monotonic_ns() - start_ns) / 1'000'000'000;
}

// All that the child needs, made before the fork: what runs between fork and exec may not allocate.
struct ChildPlan {
  std::vector<char*> argv;        // null-ended
  std::vector<char*> shell_argv;  // "/bin/sh", <candidate>, arguments: for a script without "#!"
  std::vector<char*> env;         // null-ended
  std::vector<std::string> owned_candidates;
  std::vector<char*> candidates;  // the program's possible paths, in the order of the PATH
  int out_fd = -1;                // becomes standard output and error; -1 leaves them alone
  int leash_fd = -1;              // the child's end of its leash
  int parents_leash_fd = -1;      // the other end, which the child must not keep open
  std::unique_ptr<std::byte[]> stack;
};

std::string_view variable_name(std::string_view setting) {
  return setting.substr(0, setting.find('='));
}

// Later settings replace earlier ones of the same name. The strings stay their owners'.
void set_variable(ChildPlan& plan, const char* setting) {
  const std::string_view name = variable_name(setting);
  if (name.empty() || setting[name.size()] != '=') return;
  std::erase_if(plan.env, [name](const char* other) { return variable_name(other) == name; });
  plan.env.push_back(const_cast<char*>(setting));  // exec does not write to its environment
}

void plan_environment(ChildPlan& plan, std::span<const char* const> added) {
  for (char** entry = environ; entry != nullptr && *entry != nullptr; ++entry) {
    plan.env.push_back(*entry);
  }
  set_variable(plan, "LVM_SUPPRESS_FD_WARNINGS=1");
  for (const char* setting : added) set_variable(plan, setting);
}

// The search of execvp(), done here because execvp() itself may allocate: a name with a slash is
// taken as it is, any other is tried in each directory of the new environment's PATH.
void plan_candidates(ChildPlan& plan, const std::string& program) {
  if (program.find('/') != std::string::npos) {
    plan.owned_candidates.push_back(program);
  } else if (!program.empty()) {
    std::string_view path = "/bin:/usr/bin";
    for (const char* setting : plan.env) {
      if (variable_name(setting) == "PATH") path = std::string_view(setting).substr(5);
    }
    for (bool more = true; more;) {
      const std::size_t colon = path.find(':');
      const std::string_view directory = path.substr(0, colon);
      plan.owned_candidates.push_back(directory.empty() ? "./" + program
                                                        : std::string(directory) + "/" + program);
      more = colon != std::string_view::npos;
      if (more) path.remove_prefix(colon + 1);
    }
  }
  for (std::string& candidate : plan.owned_candidates) plan.candidates.push_back(candidate.data());
}

ChildPlan make_plan(const char* const* argv, const CommandOptions& options) {
  static char shell[] = "/bin/sh";
  ChildPlan plan;
  for (const char* const* arg = argv; *arg != nullptr; ++arg) {
    plan.argv.push_back(const_cast<char*>(*arg));  // exec does not write to its arguments
  }
  plan_environment(plan, options.env);
  plan_candidates(plan, plan.argv.empty() ? "" : plan.argv[0]);
  plan.shell_argv = {shell, nullptr};
  if (plan.argv.size() > 1) {
    plan.shell_argv.insert(plan.shell_argv.end(), plan.argv.begin() + 1, plan.argv.end());
  }
  plan.argv.push_back(nullptr);
  plan.shell_argv.push_back(nullptr);
  plan.env.push_back(nullptr);
  return plan;
}

// Puts `from` onto `to` so that it survives the exec; dup2() onto itself would keep close-on-exec.
void place_descriptor(int from, int to) {
  if (from == to) {
    (void)::fcntl(to, F_SETFD, 0);  // cannot fail on an open descriptor
  } else {
    (void)::dup2(from, to);  // on failure the tool writes where the scheduler writes
  }
}

// Tries the program's possible paths as execvp() does. Returns the errno to report.
int exec_candidates(ChildPlan& plan) {
  int error = ENOENT;
  for (char* candidate : plan.candidates) {
    ::execve(candidate, plan.argv.data(), plan.env.data());
    if (errno == ENOEXEC) {
      plan.shell_argv[1] = candidate;
      ::execve(plan.shell_argv[0], plan.shell_argv.data(), plan.env.data());
      return errno;
    }
    if (errno == EACCES) {
      error = EACCES;  // worth telling, unless a later directory has the program
    } else if (errno != ENOENT && errno != ENOTDIR && errno != ESTALE && errno != ENODEV &&
               errno != ETIMEDOUT) {
      return errno;
    }
  }
  return error;
}

// Waits until the parent lets the child go. False when the parent is gone: its end is closed then,
// and nobody has written down what this child would do.
bool let_go(const ChildPlan& plan) {
  (void)::close(plan.parents_leash_fd);  // or this process itself would keep the end open
  char byte = 0;
  return ::read(plan.leash_fd, &byte, 1) == 1;
}

// The child, from its start to exec, on a stack of its own but in the parent's memory: it makes
// system calls and touches nothing but its plan. Every signal is blocked on entry, so that none can
// reach a handler of the scheduler's in here.
[[noreturn]] int run_child(void* context) {
  ChildPlan& plan = *static_cast<ChildPlan*>(context);
  (void)::setpgid(0, 0);  // the parent does the same; whoever comes first wins
  if (!let_go(plan)) ::_exit(kExecFailed);
  if (plan.out_fd >= 0) {
    place_descriptor(plan.out_fd, STDOUT_FILENO);
    place_descriptor(plan.out_fd, STDERR_FILENO);
    if (plan.out_fd != STDOUT_FILENO && plan.out_fd != STDERR_FILENO) (void)::close(plan.out_fd);
  }
  // All our descriptors are close-on-exec from the call that makes them; this is for those that a
  // library or whoever started the scheduler has left open.
  (void)::syscall(SYS_close_range, 3U, ~0U, 4U /* CLOSE_RANGE_CLOEXEC */);
  struct sigaction standard {};
  standard.sa_handler = SIG_DFL;
  for (int number = 1; number < NSIG; ++number) (void)::sigaction(number, &standard, nullptr);
  sigset_t none;
  ::sigemptyset(&none);
  (void)::sigprocmask(SIG_SETMASK, &none, nullptr);
  const int error = exec_candidates(plan);
  (void)!::write(plan.leash_fd, &error, sizeof error);  // nobody reads it when the parent is gone
  ::_exit(kExecFailed);
}

// An ignored SIGCHLD is inherited across exec; children would then be reaped by the kernel and
// their exit codes lost.
void keep_exit_codes() {
  struct sigaction action {};
  if (::sigaction(SIGCHLD, nullptr, &action) == 0 && action.sa_handler == SIG_IGN) {
    (void)::signal(SIGCHLD, SIG_DFL);
  }
}

// Starts the child without a copy of this process's memory, which would cost as much as the start
// of a small tool. It shares errno, too, but sets it only once it has been let go. -1 on failure.
pid_t start_child(ChildPlan& plan) {
  keep_exit_codes();
  (void)std::fflush(nullptr);  // what was written before stands before the tool's output
  plan.stack = std::make_unique_for_overwrite<std::byte[]>(kChildStack);
  std::byte* const top = plan.stack.get() + kChildStack;
  const pid_t pid = ::clone(run_child, top, CLONE_VM | SIGCHLD, &plan);
  if (pid > 0) (void)::setpgid(pid, pid);
  return pid;
}

// The socket between a child and its parent: a byte from the parent lets the child go, the end of
// file tells it that the parent is gone. What comes back is the end of file when it executes its
// program, or the errno when it cannot.
struct Leash {
  ScopedFd parent_end;
  ScopedFd child_end;
};

bool make_leash(Leash& leash) {
  int ends[2];
  if (::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends) != 0) return false;
  leash.parent_end.reset(ends[0]);
  leash.child_end.reset(ends[1]);
  if (ends[1] <= STDERR_FILENO) {  // where the tool's own descriptors are put
    leash.child_end.reset(::fcntl(ends[1], F_DUPFD_CLOEXEC, STDERR_FILENO + 1));
  }
  return leash.child_end.valid();
}

// A running child and how it is waited for.
struct Child {
  pid_t pid = -1;
  ScopedFd leash;  // the parent's end
  ScopedFd pidfd;  // readable once the child has ended; empty on a kernel without
  int status = 0;  // raw wait status, valid once it has ended
  bool reaped = false;
};

bool reap(Child& child, int flags) {
  pid_t got = -1;
  do {
    got = ::waitpid(child.pid, &child.status, flags);
  } while (got < 0 && errno == EINTR);
  if (got == 0) return false;
  if (got < 0) child.status = SIGKILL;  // somebody else reaped it: no exit code is known
  child.reaped = true;
  return true;
}

void signal_group(const Child& child, int number) {
  (void)::kill(-child.pid, number);
  (void)::kill(child.pid, number);  // in case it has not become a group leader, or left the group
}

// Sleeps until the child ends, `fd` (-1: none) has something, or the time is up. Whether `fd` has.
bool wait_for_child_or(const Child& child, int fd, int timeout_ms) {
  std::array<pollfd, 2> fds{{{child.pidfd.get(), POLLIN, 0}, {fd, POLLIN, 0}}};
  const int ready = ::poll(fds.data(), fds.size(), timeout_ms);  // a signal only ends it early
  return ready > 0 && fds[1].revents != 0;
}

// A stopped child (one that reads from a terminal, say) would never see the signal: it is
// continued.
void ask_to_end(const Child& child) {
  signal_group(child, SIGTERM);
  signal_group(child, SIGCONT);
}

// The time limit and the stop of a child: SIGTERM once, SIGKILL when that did not help.
struct StopWatch {
  std::int64_t started = monotonic_ns();
  std::int64_t terminated = -1;  // when SIGTERM was sent
};

// True when the child had to be killed and is gone.
bool enforce_limits(StopWatch& watch, const CommandOptions& options, StopRequest request,
                    Child& child, RunOutcome& outcome) {
  if (watch.terminated < 0) {
    if (request != StopRequest::None) {
      outcome.cancelled = true;
    } else if (whole_seconds_since(watch.started) >= options.timeout_s) {
      outcome.timed_out = true;
    } else {
      return false;
    }
    watch.terminated = monotonic_ns();
    ask_to_end(child);
    return false;
  }
  if (request != StopRequest::Kill &&
      whole_seconds_since(watch.terminated) <= options.kill_after_s) {
    return false;
  }
  signal_group(child, SIGKILL);
  return reap(child, 0);
}

void wait_serving(Child& child, const CommandOptions& options, const Poller* poller,
                  RunOutcome& outcome) {
  static constexpr Poller kNobody;
  const Poller& served = poller != nullptr ? *poller : kNobody;
  StopWatch watch;
  int hot_rounds = 0;
  int pause_ms = 0;  // how long the next wait leaves the descriptor out; 0: it does not
  const auto served_fd = [&served] {
    return served.wait_fd != nullptr ? served.wait_fd(served.context) : -1;
  };
  for (;;) {
    const bool pause = pause_ms != 0;
    const bool woken = wait_for_child_or(child, pause ? -1 : served_fd(),
                                         pause ? std::exchange(pause_ms, 0) : kServeIntervalMs);
    // Served before the child is reaped: a request that came in during the run belongs to the run.
    const StopRequest request =
        served.poll != nullptr ? served.poll(served.context) : StopRequest::None;
    if (reap(child, WNOHANG)) return;
    if (enforce_limits(watch, options, request, child, outcome)) return;
    if (woken) {
      pollfd again{served_fd(), POLLIN, 0};
      hot_rounds = ::poll(&again, 1, 0) > 0 ? hot_rounds + 1 : 0;
      if (hot_rounds < kMaxHotRounds) continue;
      hot_rounds = 0;
      // Nothing comes of a descriptor that is hung up; of many clients' requests something does.
      pause_ms = (again.revents & POLLIN) != 0 ? kHotPauseMs : kServeIntervalMs;
    }
  }
}

// Captured output: kept up to the size of the buffer, read and dropped beyond.
struct Capture {
  ScopedFd pipe;  // non-blocking; empty after its end
  std::span<char> buffer;
  std::size_t used = 0;
};

// One read of at most 512 bytes. False when there was nothing to read now, or ever again.
bool capture_some(Capture& capture) {
  std::array<char, 512> chunk;
  ssize_t got = -1;
  do {
    got = ::read(capture.pipe.get(), chunk.data(), chunk.size());
  } while (got < 0 && errno == EINTR);
  if (got < 0 && errno == EAGAIN) return false;
  if (got <= 0) {
    capture.pipe.reset();
    return false;
  }
  if (capture.buffer.empty()) return true;
  const std::size_t room = capture.buffer.size() - 1 - capture.used;
  const std::size_t taken = std::min(room, static_cast<std::size_t>(got));
  std::copy_n(chunk.data(), taken, capture.buffer.data() + capture.used);
  capture.used += taken;
  capture.buffer[capture.used] = '\0';
  return true;
}

// What the child wrote before its end is in the pipe now, so one pipe's fill is all there is to
// read. Waiting for the end of file instead could mean waiting for whatever the tool left behind.
void capture_rest(Capture& capture) {
  const int fill = ::fcntl(capture.pipe.get(), F_GETPIPE_SZ);
  for (int seen = 0; seen <= std::max(fill, 65536) && capture_some(capture); seen += 512) {
  }
}

void wait_capturing(Child& child, const CommandOptions& options, Capture& capture,
                    RunOutcome& outcome) {
  StopWatch watch;
  for (;;) {
    const bool readable = wait_for_child_or(child, capture.pipe.get(), kCaptureIntervalMs);
    if (readable) (void)capture_some(capture);
    if (reap(child, WNOHANG)) break;
    if (enforce_limits(watch, options, StopRequest::None, child, outcome)) break;
  }
  if (capture.pipe.valid()) capture_rest(capture);
}

// No signal reaches this process, or the child that it starts, while this lives.
class SignalsBlocked {
 public:
  SignalsBlocked() {
    sigset_t all;
    ::sigfillset(&all);
    (void)::sigprocmask(SIG_SETMASK, &all, &before_);
  }
  ~SignalsBlocked() { (void)::sigprocmask(SIG_SETMASK, &before_, nullptr); }
  SignalsBlocked(const SignalsBlocked&) = delete;
  SignalsBlocked& operator=(const SignalsBlocked&) = delete;

 private:
  sigset_t before_{};
};

// Starts the child on its leash; false when that failed.
bool put_on_leash(ChildPlan& plan, Child& child) {
  Leash leash;
  if (!make_leash(leash)) return false;
  plan.leash_fd = leash.child_end.get();
  plan.parents_leash_fd = leash.parent_end.get();
  child.pid = start_child(plan);
  if (child.pid < 0) return false;
  child.leash = std::move(leash.parent_end);
  child.pidfd.reset(static_cast<int>(::syscall(SYS_pidfd_open, child.pid, 0U)));  // close-on-exec
  return true;
}

// Starts the child and lets it execute its program; false when it could not be started. `plan` must
// live as long as the child.
bool start(ChildPlan& plan, const BeforeExec& before, Child& child) {
  const SignalsBlocked blocked;
  if (!put_on_leash(plan, child)) return false;
  if (before.call != nullptr) before.call(before.context, child.pid);
  // It can only fail when the child has been killed, and then its status says so.
  (void)!::send(child.leash.get(), "", 1, MSG_NOSIGNAL);
  // Until the child has done with it, nothing here asks for the errno that the two share.
  pollfd executed{child.leash.get(), POLLIN, 0};
  (void)::poll(&executed, 1, kExecPatienceMs);
  return true;
}

struct Pipe {
  ScopedFd read_end;
  ScopedFd write_end;
};

bool make_pipe(Pipe& pipe, int flags) {
  int ends[2];
  if (::pipe2(ends, O_CLOEXEC | flags) != 0) return false;
  pipe.read_end.reset(ends[0]);
  pipe.write_end.reset(ends[1]);
  return true;
}

void conclude(const Child& child, RunOutcome& outcome) {
  if (WIFEXITED(child.status)) outcome.exit_code = WEXITSTATUS(child.status);
  int error = 0;
  if (::recv(child.leash.get(), &error, sizeof error, MSG_DONTWAIT) ==
      static_cast<ssize_t>(sizeof error)) {
    outcome.exec_error = error;
  }
}

}  // namespace

int run_command_captured(const char* const* argv, const CommandOptions& options,
                         std::span<char> output, RunOutcome& outcome) {
  outcome = {};
  if (!output.empty()) output[0] = '\0';
  ChildPlan plan = make_plan(argv, options);
  Pipe pipe;
  if (!make_pipe(pipe, 0)) return -1;
  (void)::fcntl(pipe.read_end.get(), F_SETFL, O_NONBLOCK);  // the writer's end stays blocking
  plan.out_fd = pipe.write_end.get();
  Child child;
  if (!start(plan, options.before_exec, child)) return -1;
  pipe.write_end.reset();
  Capture capture{std::move(pipe.read_end), output};
  wait_capturing(child, options, capture, outcome);
  conclude(child, outcome);
  return 0;
}

int run_command(const char* const* argv, const CommandOptions& options, int out_fd,
                const Poller* poller, RunOutcome& outcome) {
  outcome = {};
  ChildPlan plan = make_plan(argv, options);
  plan.out_fd = out_fd;
  Child child;
  if (!start(plan, options.before_exec, child)) return -1;
  wait_serving(child, options, poller, outcome);
  conclude(child, outcome);
  return 0;
}

}  // namespace orv
