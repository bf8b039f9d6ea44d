// The command line from outside: what the built program prints, where, and how it exits.
#include "e2e/daemon_fixture.h"

namespace orv::test {
namespace {

using CliTest = DaemonFixture;
using Words = std::vector<std::string>;

TEST_F(CliTest, TheSwitchesOfEveryToolComeBeforeEverything) {
  const ProgramResult version =
      run_program({ORV_SCHED_PROGRAM, "bogus", "--version", "--selftest"});
  EXPECT_EQ(version.status, 0);
  EXPECT_EQ(version.out, "orv_sched 1.0.2-alpha028\n");
  EXPECT_EQ(version.err, "");
  EXPECT_EQ(run_program({ORV_SCHED_PROGRAM, "--selftest"}).out,
            "orv_sched 1.0.2-alpha028: selftest ok\n");
}

TEST_F(CliTest, UsageGoesToStandardOutputAndTheFaultToStandardError) {
  configure("");
  // clang-format off
  const struct { Words words; int status; std::string fault; } cases[] = {
      {{"bogus"},            2, "error: unknown command 'bogus'\n"},
      {{"lsit"},             2, "error: unknown command 'lsit' (did you mean 'list'?)\n"},
      {{"list", "-h"},       0, ""},
      {{"start"},            2, "error: 'start' needs the name of a job before '--config'\n"},
      {{"api-token", "lst"}, 2, "error: unknown api-token command 'lst' (did you mean 'list'?)\n"},
  };
  // clang-format on
  for (const auto& c : cases) {
    SCOPED_TRACE(testing::PrintToString(c.words));
    const ProgramResult result = sched(c.words[0], {c.words.begin() + 1, c.words.end()});
    EXPECT_EQ(result.status, c.status);
    EXPECT_EQ(result.err, c.fault);
    EXPECT_TRUE(result.out.starts_with("orv_sched 1.0.2-alpha028 (build 20261005-2)\n\n"));
    EXPECT_TRUE(contains(result.out, "--queue defaults to\n/var/lib/orv_sched/queue.state."));
    EXPECT_TRUE(contains(result.out,
                         "built-in defaults are\n"
                         "30s / poll-interval / 86400s / /var/log/orv/orv_sched-jobs / 20."));
  }
}

TEST_F(CliTest, WarningsGoToTheRunLogToo) {
  configure("[a]\nenabled=no\n[b]\nonce=1\n");
  const ProgramResult warned = sched("validate", {"--x%s", "y"});
  EXPECT_EQ(warned.status, 0);
  EXPECT_EQ(warned.out, "OK: 2 job(s)\n");
  EXPECT_TRUE(contains(warned.err, "unknown option '--x%s' ignored (with the value after it)"));
  const std::string log = file("log/sched.log");
  EXPECT_TRUE(contains(log, "[orv_sched] pid=")) << log;
  EXPECT_TRUE(contains(log, " unknown option '--x%s' ignored (with the value after it)\n")) << log;
  EXPECT_TRUE(log.ends_with(" stopped exit=0\n")) << log;
}

TEST_F(CliTest, MasksSelectWhatIsLogged) {
  // Bits are looked at in the low 32 only.
  // clang-format off
  static constexpr struct { const char* mask; bool logged, warned; } kCases[] = {
      {"--log=0",           false, false}, {"--log=0x3", true,  false}, {"--log=12abc",  true, true},
      {"--log=",            true,  false}, {"--log=-1",  true,  true},  {"--syslog=x",   true, true},
      {"--log=0x100000000", false, false},
  };
  // clang-format on
  for (const auto& c : kCases) {
    SCOPED_TRACE(c.mask);
    const TempDir dir;
    const ProgramResult result = run_program(
        {ORV_SCHED_PROGRAM, "bogus", c.mask, "--no-syslog", "--log-path=" + dir.file("x/")});
    EXPECT_EQ(contains(read_file(dir.file("x/sched.log")), "started"), c.logged);
    EXPECT_EQ(contains(result.err, "warning: orv_runlog: invalid --"), c.warned) << result.err;
    EXPECT_TRUE(exists(dir.file("x/sched.log")));
  }
  home_.write("log", "no directory");
  EXPECT_TRUE(
      sched("bogus").err.starts_with("warning: orv_runlog: could not create log directory '" +
                                     home_.file("log") + "' -- continuing without logfile\n"));
}

TEST_F(CliTest, SaysWhatIsWrongWithTheConfigurationOrTheQueue) {
  const std::string config = home_.file("sched.cfg");
  const struct {
    const char *text, *command;
    int status;
    std::string err;
  } cases[] = {
      {"[a]\nenabled=maybe\n", "validate", 1, config + ":2: 'enabled' must be yes or no\n"},
      {"[a]\n", "daemon", 2, "[a]: needs at least one of 'schedule', 'once' or 'after'"},
      {"", "list", 1, "cannot read queue " + home_.file("state/queue") + "\n"},
  };
  home_.write("state/queue/is a directory", "");
  for (const auto& c : cases) {
    configure(c.text);
    const ProgramResult result = sched(c.command);
    EXPECT_EQ(result.status, c.status) << c.command;
    EXPECT_TRUE(contains(result.err, "error: " + c.err)) << result.err;
  }
  std::filesystem::remove(config);
  EXPECT_EQ(sched("list").err, "error: cannot read the configuration file " + config + "\n");
}

TEST_F(CliTest, ListShowsWhatTheDaemonWouldSeeAndCreatesNothing) {
  configure(
      "[nightly]\nonce=4102444800\n[check]\ncommand=verify\nafter=nightly,prune\n"
      "after-mode=finished\n[prune]\ncommand=maint-prune\nenabled=no\n");
  const ProgramResult result = sched("list");
  EXPECT_EQ(result.status, 0) << result.err;
  EXPECT_EQ(result.out,
            "NAME                     COMMAND            STATUS     NEXT-RUN             LAST-RUN "
            "            LAST-FINISH          EXIT   AFTER\n"
            "nightly                  agent              PENDING    2100-01-01 00:00:00  -        "
            "            -                    -      -\n"
            "check                    verify             PENDING    -                    -        "
            "            -                    -      nightly,prune (finished)\n"
            "prune                    maint-prune        DISABLED   -                    -        "
            "            -                    -      -\n");
  EXPECT_FALSE(exists(home_.file("state")));
}

TEST_F(CliTest, ListIsColouredOnATerminalOnly) {
  configure("[a]\nonce=4102444800\n[b]\nenabled=no\n");
  const auto on_terminal = [&](const char* no_color) {
    const Words line = {"script", "-qec", shell_line("list"), "/dev/null"};
    return run_program(line, {{"NO_COLOR", no_color}}).out;
  };
  const std::string coloured = on_terminal("");
  if (coloured.empty()) GTEST_SKIP() << "no script(1) to make a terminal with";
  EXPECT_TRUE(contains(coloured, "\033[30;107ma  "));
  EXPECT_TRUE(contains(coloured, "-\033[0m"));
  EXPECT_TRUE(contains(coloured, "\nb  "));  // a disabled job is plain
  EXPECT_FALSE(contains(on_terminal("1"), "\033["));
}

TEST_F(CliTest, ClosedAndFullStreamsLoseNothing) {
  configure("[a]\nonce=1\nprofile=p\n");
  // Without a standard error, messages must not be written into the first file that is opened.
  EXPECT_EQ(run_program({"sh", "-c", shell_line("run", {"a", "--no-log"}) + " 2>&-"}, env()).status,
            1);
  const auto logs = std::filesystem::directory_iterator(home_.file("job-logs/a"));
  const std::string log = read_file(logs->path());
  EXPECT_TRUE(contains(log, "finish_unix: "));
  EXPECT_FALSE(contains(log, "[orv_sched]")) << log;

  const ProgramResult full = run_program({"sh", "-c", shell_line("validate") + " >/dev/full"});
  EXPECT_EQ(full.status, 1);
  EXPECT_TRUE(full.err.ends_with("error: cannot write to standard output\n")) << full.err;
}

}  // namespace
}  // namespace orv::test
