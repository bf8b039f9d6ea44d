#include <signal.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <filesystem>

#include "daemon_fixture.h"

namespace orv::test {
namespace {

using DaemonTest = DaemonFixture;

TEST_F(DaemonTest, TakesAChainToItsEndAndStopsWhenAsked) {
  tool("orv_agent", "echo backup; echo agent >>" + home_.file("order"));
  tool("orv_verifier", "echo verifier >>" + home_.file("order"));
  configure(
      "[check]\ncommand=verify\nafter=backup\n[backup]\nprofile=docs\nonce=1\n"
      "[missing]\ncommand=proxmox\nafter=check\n");
  start_daemon();
  ASSERT_TRUE(reaches("missing", JobState::Failed));
  EXPECT_EQ(file("order"), "agent\nverifier\n");
  EXPECT_EQ(stop_daemon(), 0);
  const std::string log = daemon_->err();
  EXPECT_TRUE(contains(log, "INFO  orv_sched daemon started: config=" + home_.file("sched.cfg") +
                                " queue=" + home_.file("state/queue") + " poll-interval=1s\n"));
  EXPECT_TRUE(contains(log, "INFO  orv_sched: job 'backup' starting (orv_agent)\n"));
  EXPECT_TRUE(
      contains(log, "INFO  orv_sched: job 'check' finished exit=0 timed_out=0 result=done\n"));
  EXPECT_TRUE(
      contains(log, "ERROR orv_sched: job 'missing': cannot execute orv_proxmox: No such file"));
  EXPECT_TRUE(contains(log, "INFO  orv_sched daemon stopping (signal received)\n"));
}

TEST_F(DaemonTest, LetsARunningJobEndBeforeItStops) {
  tool("orv_agent", up_until_go());
  configure("[a]\nonce=1\n[b]\nonce=1\n");
  // This test stands for the service manager.
  const ScopedFd manager(::socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0));
  sockaddr_un at{AF_UNIX, {}};
  home_.file("notify").copy(at.sun_path, sizeof at.sun_path - 1);
  ASSERT_EQ(::bind(manager.get(), reinterpret_cast<const sockaddr*>(&at), sizeof at), 0);
  const auto told = [&] {
    std::string text(4096, '\0');
    const ssize_t got = ::recv(manager.get(), text.data(), text.size(), 0);
    text.resize(got > 0 ? static_cast<std::size_t>(got) : 0);
    return text;
  };
  const ScopedEnv socket("NOTIFY_SOCKET", home_.file("notify"));
  start_daemon();
  EXPECT_EQ(told(), "READY=1\nSTATUS=waiting for the next job");
  EXPECT_TRUE(told().starts_with("STATUS=running job 'a' since 2"));
  ASSERT_TRUE(appears("up"));
  daemon_->signal(SIGHUP);  // does nothing
  daemon_->signal(SIGINT);
  EXPECT_TRUE(daemon_says("INFO  orv_sched: stopping after job 'a', which is still running\n"));
  EXPECT_EQ(told(), "STOPPING=1\nSTATUS=stopping after job 'a'");
  home_.write("go", "");
  EXPECT_EQ(daemon_->wait(), 0);
  EXPECT_EQ(record_state(record("a")), JobState::Done);
  EXPECT_EQ(record_state(record("b")), JobState::Pending) << "nothing is started after the signal";
}

TEST_F(DaemonTest, SaysWhatWasLostAfterItWasKilledDuringARun) {
  tool("orv_agent", "echo $$ >" + home_.file("pid") + "; exec sleep 60");
  configure("[a]\nschedule=0 0 1 1 *\n");
  start_daemon();
  ASSERT_TRUE(reaches("a", JobState::Pending));
  Program run(command_line("run", {"a"}), env());
  const std::string runner = std::to_string(run.pid());
  ASSERT_TRUE(appears("pid"));
  ASSERT_TRUE(
      daemon_says("INFO  orv_sched: job 'a' is running in another process (pid " + runner + ")"));
  const ProgramResult refused = sched("run", {"a"});
  EXPECT_EQ(refused.status, 1);
  EXPECT_TRUE(contains(refused.err, "ERROR orv_sched: job 'a' is already RUNNING (pid " + runner +
                                        "; use --force to override)"));
  daemon_->signal(SIGKILL);
  daemon_->wait();
  run.signal(SIGKILL);
  run.wait();
  const pid_t tool_pid = std::stoi(file("pid"));
  EXPECT_EQ(::kill(tool_pid, 0), 0) << "the tool outlives its scheduler";
  start_daemon();
  EXPECT_TRUE(
      daemon_says("ERROR orv_sched: job 'a' is RUNNING in the queue file, but its runner "
                  "(pid " +
                  runner + ") is gone -- marked FAILED\n"));
  EXPECT_TRUE(daemon_says("WARN  orv_sched: job 'a': the tool of a run whose scheduler is"));
  ::kill(tool_pid, SIGKILL);
  EXPECT_TRUE(reaches("a", JobState::Failed));
  EXPECT_EQ(stop_daemon(), 0);
  EXPECT_EQ(std::filesystem::file_size(home_.file("state/queue")), kRecordSize);
}

}  // namespace
}  // namespace orv::test
