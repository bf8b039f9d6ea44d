#include <signal.h>
#include <unistd.h>

#include <filesystem>

#include "daemon_fixture.h"

namespace orv::test {
namespace {

using RunStartTest = DaemonFixture;

TEST_F(RunStartTest, ChecksInOrderAndSaysWhatIsWrong) {
  configure("broken\n");
  EXPECT_EQ(sched("start", {"--force", "a"}).status, 2);
  const ProgramResult both = sched("run", {"a", "--background", "--no-background"});
  EXPECT_EQ(both.status, 2);
  EXPECT_EQ(both.err, "error: --background and --no-background are mutually exclusive\n");
  EXPECT_EQ(sched("start", {"a"}).status, 2);
  configure("[a]\nonce=1\n");
  EXPECT_TRUE(contains(sched("start", {"b"}).err, "error: unknown job 'b'\n"));
  const ProgramResult unknown = sched("run", {"b"});
  EXPECT_EQ(unknown.status, 1);
  EXPECT_TRUE(contains(unknown.err, "ERROR orv_sched: unknown job 'b'\n"));
}

TEST_F(RunStartTest, RunExitsWithTheOutcomeAndDecidesOnTheBackground) {
  tool("orv_agent",
       "echo \"$*\" >" + home_.file("args") + "; exit $(cat " + home_.file("code") + ")");
  tool("orv_verifier", "echo \"$*\" >" + home_.file("args"));
  configure(
      "[plain]\nprofile=p\nonce=1\n[back]\nprofile=p\nrun-background=yes\nenabled=no\n"
      "[check]\ncommand=verify\nafter=plain\n");
  // clang-format off
  static constexpr struct { const char *job, *flag; int code, status; const char* args; } kCases[] = {
      {"plain", "--force", 0, 0, "--name p\n"},
      {"plain", "--background", 0, 0, "--name p --background\n"},
      {"back", "--force", 3, 1, "--name p --background\n"},
      {"back", "--no-background", 75, 1, "--name p\n"},
      {"check", "--background", 0, 0, "\n"},
  };
  // clang-format on
  for (const auto& c : kCases) {
    SCOPED_TRACE(std::string(c.job) + " " + c.flag);
    home_.write("code", std::to_string(c.code));
    const ProgramResult result = sched("run", {c.job, c.flag});
    EXPECT_EQ(result.status, c.status);
    EXPECT_EQ(file("args"), c.args);
    EXPECT_EQ(result.out, std::string(c.job) == "check"
                              ? "note: --background ignored, command=verify does not take it\n"
                              : "");
  }
  EXPECT_EQ(record_state(record("back")), JobState::Pending) << "busy";
}

TEST_F(RunStartTest, ARunOutlivesWhoeverReadsItsMessages) {
  tool("orv_agent", up_until_go());
  configure("[a]\nonce=1\n");
  const std::string command = "{ " + shell_line("run", {"a"}) + "; echo $? >" + home_.file("code") +
                              "; } 2>&1 | { head -c 1; exec <&-; : >" + home_.file("go") + "; }";
  EXPECT_EQ(run_program({"sh", "-c", command}, env()).status, 0);
  EXPECT_TRUE(appears("code"));
  EXPECT_EQ(file("code"), "0\n");
  EXPECT_EQ(record_state(record("a")), JobState::Done);
}

TEST_F(RunStartTest, ASignalEndsTheToolAndTheRunHasFailed) {
  tool("orv_agent",
       "trap 'exit 0' TERM; echo $$ >" + home_.file("pid") + "; while :; do sleep 0.05; done");
  configure("[a]\nonce=1\n");
  for (const auto& [number, name] : {std::pair(SIGINT, "SIGINT"), std::pair(SIGHUP, "SIGHUP")}) {
    home_.write("pid", "");
    std::filesystem::remove_all(home_.file("job-logs"));
    Program run(command_line("run", {"a"}), env());
    ASSERT_TRUE(appears("pid"));
    run.signal(number);
    EXPECT_EQ(run.wait(), 1);
    EXPECT_EQ(record_state(record("a")), JobState::Failed);
    const auto logs = std::filesystem::directory_iterator(home_.file("job-logs/a"));
    EXPECT_TRUE(read_file(logs->path())
                    .ends_with(std::string("\ncancelled: 1\ncancelled_by: ") + name + "\n"));
  }
  home_.write("pid", "");
  ASSERT_EQ(sched("start", {"a"}).status, 0);
  ASSERT_TRUE(appears("pid"));
  ::kill(static_cast<pid_t>(queue_get_runner_pid(record("a"))), SIGTERM);
  EXPECT_TRUE(reaches("a", JobState::Failed));
}

TEST_F(RunStartTest, StartDetachesAndRefusesWhileAJobRuns) {
  tool("orv_agent", "echo \"$* $(readlink /proc/$$/fd/0) $(pwd)\" >" + home_.file("args") + "; " +
                        up_until_go() + "; exit 3");
  configure("[a]\nprofile=p\nonce=1\n[b]\nprofile=p\nonce=1\n");
  const ProgramResult started = sched("start", {"a"});
  EXPECT_EQ(started.status, 0);
  EXPECT_EQ(started.out.find("started job 'a' in the background (pid "), 0U);
  EXPECT_TRUE(started.out.ends_with(", with --background), log: " + home_.file("job-logs/a/\n")));
  ASSERT_TRUE(reaches("a", JobState::Running) && appears("up"));
  EXPECT_EQ(file("args"),
            "--name p --background /dev/null " + std::filesystem::current_path().string() + "\n");
  const std::string pid = std::to_string(queue_get_runner_pid(record("a")));
  EXPECT_TRUE(contains(started.out, "(pid " + pid + ","));
  EXPECT_TRUE(contains(sched("start", {"a"}).err, "error: job 'a' is already RUNNING (pid " + pid +
                                                      "; use --force to override)\n"));
  const ProgramResult other = sched("start", {"b"});
  EXPECT_EQ(other.status, 1);
  EXPECT_TRUE(
      contains(other.err, "error: job 'a' is RUNNING (pid " + pid +
                              ") -- jobs run one at a time, try again later (or use --force to run "
                              "'b' alongside it)\n"));
  Program forced(command_line("run", {"b", "--force"}), env());
  EXPECT_TRUE(reaches("b", JobState::Running)) << "alongside the other";
  EXPECT_EQ(record_state(record("a")), JobState::Running);
  home_.write("go", "");
  EXPECT_EQ(forced.wait(), 1);
  EXPECT_TRUE(reaches("a", JobState::Failed));
  EXPECT_EQ(record("a").exit_code, 3);
}

}  // namespace
}  // namespace orv::test
