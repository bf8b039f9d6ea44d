#include "sched/subprocess.h"

#include <errno.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <chrono>
#include <string>
#include <vector>

#include "common/scoped_fd.h"
#include "support/support.h"

namespace orv {
namespace {

using namespace std::chrono_literals;
using test::ScopedEnv;
using test::TempDir;

CommandOptions options() { return {{}, 60, 0, {}}; }

// What the shell commands wrote, the first 99 bytes of it.
std::string capture(const char* script, RunOutcome& outcome) {
  const std::array<const char*, 4> argv = {"sh", "-c", script, nullptr};
  std::array<char, 100> buffer{};
  EXPECT_EQ(run_command_captured(argv.data(), options(), buffer, outcome), 0);
  return buffer.data();
}

TEST(Subprocess, ReportsHowTheProgramEnded) {
  const TempDir dir;
  dir.write("plain", "exit 6\n", 0755);  // no "#!": run by the shell, as execvp() does
  dir.write("locked", "", 0644);
  const ScopedEnv path("PATH", "/nowhere::" + dir.path() + ":/usr/bin:/bin");
  const struct {
    std::vector<const char*> argv;
    int exit_code, exec_error;
  } cases[] = {
      {{"true"}, 0, 0},
      {{"sh", "-c", "exit 75"}, 75, 0},
      {{"sh", "-c", "kill -9 $$"}, -1, 0},
      {{"plain"}, 6, 0},
      {{"no-such-tool"}, 127, ENOENT},
      {{"./no/such/tool"}, 127, ENOENT},
      {{"locked"}, 127, EACCES},
      {{"sh", "-c", "exit 127"}, 127, 0},
  };
  for (auto c : cases) {
    SCOPED_TRACE(c.argv.back());
    c.argv.push_back(nullptr);
    RunOutcome outcome;
    ASSERT_EQ(run_command(c.argv.data(), options(), -1, nullptr, outcome), 0);
    EXPECT_EQ(outcome.exit_code, c.exit_code);
    EXPECT_EQ(outcome.exec_error, c.exec_error);
  }
}

TEST(Subprocess, GivesTheChildCleanSignalsAndThreeDescriptors) {
  const ScopedFd leaked(::fcntl(0, F_DUPFD, 50));  // deliberately not close-on-exec
  sigset_t some;
  sigset_t before;
  sigemptyset(&some);
  sigaddset(&some, SIGTERM);
  ::sigprocmask(SIG_BLOCK, &some, &before);
  for (const int number : {SIGPIPE, SIGCHLD, SIGHUP}) ::signal(number, SIG_IGN);
  RunOutcome outcome;
  const std::string output =
      capture("grep -E 'SigBlk|SigIgn' /proc/self/status; exec ls /proc/self/fd", outcome);
  for (const int number : {SIGPIPE, SIGCHLD, SIGHUP}) ::signal(number, SIG_DFL);
  ::sigprocmask(SIG_SETMASK, &before, nullptr);
  EXPECT_EQ(outcome.exit_code, 0) << "an ignored SIGCHLD must not lose the exit code";
  EXPECT_EQ(output,  // 3 is the directory that ls itself reads
            "SigBlk:\t0000000000000000\nSigIgn:\t0000000000000000\n0\n1\n2\n3\n");
}

TEST(Subprocess, EndsWithTheToolAndLeavesItsChildrenAlone) {
  RunOutcome outcome;
  const pid_t left =
      std::stoi(capture("sleep 60 & echo $!; head -c 3000000 /dev/zero; exit 3", outcome));
  EXPECT_EQ(outcome.exit_code, 3);
  EXPECT_EQ(::kill(left, SIGKILL), 0) << "it was still there, holding the pipe open";
}

struct Canceller {
  std::string when;   // asks for the stop once this file exists
  ScopedFd readable;  // a descriptor that is never drained
  int calls = 0;
};
Poller poller_of(Canceller& c) {
  return {[](void* context) {
            auto& self = *static_cast<Canceller*>(context);
            ++self.calls;
            return test::exists(self.when) ? StopRequest::Terminate : StopRequest::None;
          },
          [](void* context) { return static_cast<Canceller*>(context)->readable.get(); }, &c};
}

TEST(Subprocess, StopsTheWholeGroupWhenAskedTo) {
  const TempDir dir;
  dir.script("deaf", "trap '' TERM; echo up >\"$1/up\"; while :; do sleep 0.05; done");
  dir.script("tool",
             "cd \"$1\"; sh -c 'trap \"echo > stopped; exit\" TERM; echo > up; while :; do sleep "
             "0.05; done' & trap 'exit 0' TERM; wait");
  static constexpr std::pair<const char*, int> kTools[] = {{"tool", 0}, {"deaf", -1}};
  for (const auto& [name, exit_code] : kTools) {
    SCOPED_TRACE(name);
    const TempDir work;
    Canceller canceller{work.file("up"), ScopedFd(), 0};
    const Poller poller = poller_of(canceller);
    const std::string tool = dir.file(name);
    const std::array<const char*, 3> argv = {tool.c_str(), work.path().c_str(), nullptr};
    RunOutcome outcome;
    ASSERT_EQ(run_command(argv.data(), options(), -1, &poller, outcome), 0);
    EXPECT_TRUE(outcome.cancelled);
    EXPECT_FALSE(outcome.timed_out);
    EXPECT_EQ(outcome.exit_code, exit_code);
    const std::string mark = work.file("stopped");
    const bool stopped = exit_code == 0;  // the deaf one is killed with its group
    const auto deadline = stopped ? 10s : 0s;
    EXPECT_EQ(test::wait_until(deadline, [&] { return test::exists(mark); }), stopped);
  }
}

TEST(Subprocess, DoesNothingWhenItsParentDiesBeforeItIsLetGo) {
  const TempDir dir;
  const std::string mark = dir.file("ran");
  const pid_t parent = ::fork();
  if (parent == 0) {
    CommandOptions dying = options();
    dying.before_exec.call = [](void*, pid_t) { ::_exit(0); };
    const std::array<const char*, 3> argv = {"touch", mark.c_str(), nullptr};
    RunOutcome outcome;
    ::_exit(run_command(argv.data(), dying, -1, nullptr, outcome) + 2);
  }
  int status = -1;
  ASSERT_EQ(::waitpid(parent, &status, 0), parent);
  EXPECT_EQ(status, 0);
  EXPECT_FALSE(test::wait_until(300ms, [&] { return test::exists(mark); }));
}

TEST(Subprocess, ContinuesAStoppedToolThatIsToEnd) {
  Canceller canceller{"/", ScopedFd(), 0};
  const Poller poller = poller_of(canceller);
  const std::array<const char*, 4> argv = {"sh", "-c", "kill -STOP $$", nullptr};
  CommandOptions patient = options();
  patient.kill_after_s = 60;
  RunOutcome outcome;
  ASSERT_EQ(run_command(argv.data(), patient, -1, &poller, outcome), 0);
  EXPECT_TRUE(outcome.cancelled);
}

TEST(Subprocess, DoesNotSpinOnADescriptorThatStaysReadable) {
  int ends[2];
  ASSERT_EQ(::pipe2(ends, O_CLOEXEC), 0);
  Canceller canceller{"/nonexistent", ScopedFd(ends[0]), 0};
  ::close(ends[1]);  // hung up for good
  const Poller poller = poller_of(canceller);
  const std::array<const char*, 3> argv = {"sleep", "0.5", nullptr};
  RunOutcome outcome;
  const auto start = std::chrono::steady_clock::now();
  ASSERT_EQ(run_command(argv.data(), options(), -1, &poller, outcome), 0);
  const auto rounds = (std::chrono::steady_clock::now() - start) / 50ms + 1;
  EXPECT_LE(canceller.calls, 10 * rounds);
}

}  // namespace
}  // namespace orv
