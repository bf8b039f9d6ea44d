// The command line from outside: what the built program prints, where, and how it exits.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "support/support.h"

namespace orv::test {
namespace {

class CliTest : public ::testing::Test {
 protected:
  TempDir dir_;

  ProgramResult sched(std::vector<std::string> words, std::map<std::string, std::string> env = {}) {
    words.insert(words.begin(), ORV_SCHED_PROGRAM);
    words.insert(words.end(), {"--no-syslog", "--log-path", dir_.file("log")});
    return run_program(std::move(words), std::move(env));
  }
  // With the configuration and a queue of its own.
  ProgramResult with_config(std::vector<std::string> words, const std::string& config) {
    words.insert(words.end(),
                 {"--config", dir_.write("cfg", config), "--queue", dir_.file("queue")});
    return sched(std::move(words), {{"TZ", "UTC"}});
  }
};

TEST_F(CliTest, TheSwitchesOfEveryToolComeBeforeEverything) {
  ProgramResult result = run_program({ORV_SCHED_PROGRAM, "bogus", "--version", "--selftest"});
  EXPECT_EQ(result.status, 0);
  EXPECT_EQ(result.out, "orv_sched 1.0.2-alpha028\n");
  EXPECT_EQ(result.err, "");
  result = run_program({ORV_SCHED_PROGRAM, "--selftest"});
  EXPECT_EQ(result.out, "orv_sched 1.0.2-alpha028: selftest ok\n");
}

TEST_F(CliTest, UsageGoesToStandardOutputAndTheFaultToStandardError) {
  struct Case {
    std::vector<std::string> words;
    int status;
    std::string fault;
  };
  const std::string config = dir_.write("cfg", "");
  for (const Case& c :
       std::vector<Case>{{{"bogus"}, 2, "unknown command 'bogus'"},
                         {{"lsit"}, 2, "unknown command 'lsit' (did you mean 'list'?)"},
                         {{"list", "-h"}, 0, ""},
                         {{"start"}, 2, "'start' needs the name of a job before '--no-syslog'"},
                         {{"api-token", "lst", "--config", config},
                          2,
                          "unknown api-token command 'lst' (did you mean 'list'?)"}}) {
    SCOPED_TRACE(testing::PrintToString(c.words));
    const ProgramResult result = sched(c.words);
    EXPECT_EQ(result.status, c.status);
    EXPECT_EQ(result.err, c.fault.empty() ? "" : "error: " + c.fault + "\n");
    EXPECT_TRUE(result.out.starts_with("orv_sched 1.0.2-alpha028 (build 20261005-2)\n\n"));
    EXPECT_TRUE(contains(result.out, "--queue defaults to\n/var/lib/orv_sched/queue.state."));
    EXPECT_TRUE(contains(result.out,
                         "built-in defaults are\n"
                         "30s / poll-interval / 86400s / /var/log/orv/orv_sched-jobs / 20."));
    EXPECT_FALSE(exists("queue.state"));
  }
}

TEST_F(CliTest, TheRunLogRecordsStartStopAndWarnings) {
  const ProgramResult result = sched({"bogus"});
  EXPECT_EQ(result.status, 2);
  std::string log = read_file(dir_.file("log/sched.log"));
  EXPECT_TRUE(contains(log, " started\n")) << log;
  EXPECT_TRUE(contains(log, " stopped exit=2\n")) << log;
  EXPECT_TRUE(contains(log, "[orv_sched] pid="));

  const ProgramResult warned = with_config({"validate", "--x%s", "y"}, "");
  EXPECT_EQ(warned.status, 0);
  EXPECT_TRUE(contains(warned.err, "unknown option '--x%s' ignored (with the value after it)"));
  log = read_file(dir_.file("log/sched.log"));
  EXPECT_TRUE(contains(log, " unknown option '--x%s' ignored (with the value after it)\n"));
}

TEST_F(CliTest, MasksSelectWhatIsLogged) {
  struct Case {
    const char* mask;
    bool logged;
    bool warned;
  };
  // Bits are looked at in the low 32 only.
  for (const Case& c : {Case{"--log=0", false, false}, Case{"--log=0x3", true, false},
                        Case{"--log=12abc", true, true}, Case{"--log=", true, false},
                        Case{"--log=0x100000000", false, false}, Case{"--log=-1", true, true},
                        Case{"--syslog=x", true, true}}) {
    SCOPED_TRACE(c.mask);
    const TempDir dir;
    const ProgramResult result = run_program(
        {ORV_SCHED_PROGRAM, "bogus", c.mask, "--no-syslog", "--log-path=" + dir.file("x/")});
    EXPECT_EQ(contains(read_file(dir.file("x/sched.log")), "started"), c.logged);
    EXPECT_EQ(contains(result.err, "warning: orv_runlog: invalid --"), c.warned) << result.err;
    EXPECT_TRUE(exists(dir.file("x/sched.log")));
  }
  dir_.write("plain", "");
  const ProgramResult no_directory =
      run_program({ORV_SCHED_PROGRAM, "bogus", "--no-syslog", "--log-path", dir_.file("plain")});
  EXPECT_TRUE(no_directory.err.starts_with("warning: orv_runlog: could not create log directory '" +
                                           dir_.file("plain") +
                                           "' -- continuing without logfile\n"));
}

TEST_F(CliTest, ValidateTellsTheFirstFault) {
  EXPECT_EQ(with_config({"validate"}, "[a]\nenabled=no\n[b]\nonce=1\n").out, "OK: 2 job(s)\n");
  const ProgramResult bad = with_config({"validate"}, "[a]\nenabled=maybe\n");
  EXPECT_EQ(bad.status, 1);
  EXPECT_EQ(bad.err, "error: " + dir_.file("cfg") + ":2: 'enabled' must be yes or no\n");
  EXPECT_FALSE(exists(dir_.file("queue")));
}

TEST_F(CliTest, ListShowsWhatTheDaemonWouldSeeAndCreatesNothing) {
  const ProgramResult result =
      with_config({"list"},
                  "[nightly]\nonce=4102444800\n[check]\ncommand=verify\nafter=nightly,prune\n"
                  "after-mode=finished\n[prune]\ncommand=maint-prune\nenabled=no\n");
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
  EXPECT_FALSE(exists(dir_.file("queue")));
  EXPECT_FALSE(exists(dir_.file("queue.lock")));
}

TEST_F(CliTest, ListReportsAQueueThatCannotBeRead) {
  ASSERT_EQ(run_program({"mkdir", dir_.file("queue")}).status, 0);
  const ProgramResult result = with_config({"list"}, "");
  EXPECT_EQ(result.status, 1);
  EXPECT_EQ(result.err, "error: cannot read queue " + dir_.file("queue") + "\n");
  EXPECT_EQ(sched({"list", "--config", dir_.file("none")}).err,
            "error: cannot read the configuration file " + dir_.file("none") + "\n");
}

TEST_F(CliTest, ListIsColouredOnATerminalOnly) {
  const std::string config = dir_.write("cfg", "[a]\nonce=4102444800\n[b]\nenabled=no\n");
  const std::string command = std::string(ORV_SCHED_PROGRAM) +
                              " list --no-syslog --no-log --config " + config + " --queue " +
                              dir_.file("q");
  const auto on_terminal = [&](const char* no_color) {
    return run_program({"script", "-qec", command, "/dev/null"}, {{"NO_COLOR", no_color}}).out;
  };
  const std::string coloured = on_terminal("");
  if (coloured.empty()) GTEST_SKIP() << "no script(1) to make a terminal with";
  EXPECT_TRUE(contains(coloured, "\033[30;107ma  "));
  EXPECT_TRUE(contains(coloured, "-\033[0m"));
  EXPECT_TRUE(contains(coloured, "\nb  "));  // a disabled job is plain
  EXPECT_FALSE(contains(on_terminal("1"), "\033["));
}

TEST_F(CliTest, ClosedAndFullStreamsLoseNothing) {
  const std::string config = dir_.write("cfg", "[a]\nonce=1\nprofile=p\n");
  const std::string options = " --no-syslog --no-log --config " + config + " --queue " +
                              dir_.file("queue") + " --job-log-dir " + dir_.file("logs");
  const auto shell = [&](const std::string& command, const char* redirection) {
    return run_program({"sh", "-c", ORV_SCHED_PROGRAM " " + command + options + " " + redirection});
  };
  // Without a standard error, messages must not be written into the first file that is opened.
  EXPECT_EQ(shell("run a", "2>&-").status, 1);  // there is no tool
  const std::string log = run_program({"sh", "-c", "cat " + dir_.file("logs") + "/a/*.log"}).out;
  EXPECT_TRUE(contains(log, "finish_unix: "));
  EXPECT_FALSE(contains(log, "[orv_sched]")) << log;

  const ProgramResult full = shell("validate", ">/dev/full");
  EXPECT_EQ(full.status, 1);
  EXPECT_TRUE(full.err.ends_with("error: cannot write to standard output\n")) << full.err;
}

TEST_F(CliTest, TheDaemonNeedsAConfiguration) {
  const ProgramResult result = with_config({"daemon"}, "[a]\n");
  EXPECT_EQ(result.status, 2);
  EXPECT_TRUE(
      contains(result.err, "error: [a]: needs at least one of 'schedule', 'once' or 'after'"));
}

}  // namespace
}  // namespace orv::test
