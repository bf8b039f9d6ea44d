#include "common/log.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdlib>
#include <string>
#include <vector>

#include "common/privileges.h"
#include "support/support.h"

namespace orv {
namespace {

using test::contains;
using test::TempDir;

std::string logged(LogLevel level, const std::string& message) {
  testing::internal::CaptureStderr();
  log_msg(level, "%s", message.c_str());
  return testing::internal::GetCapturedStderr();
}

// Only a process of its own has not initialised the log yet, and may.
TEST(DiagnosticLogDeathTest, WorksBeforeItIsInitialised) {
  EXPECT_EXIT(
      {
        log_msg(LogLevel::Debug, "dropped");
        log_msg(LogLevel::Warn, "early %d", 7);
        log_init(std::string(70, 'n'), LogLevel::Error);
        log_msg(LogLevel::Warn, "dropped");
        log_msg(static_cast<LogLevel>(9), "odd");
        std::exit(0);
      },
      testing::ExitedWithCode(0),
      "^[0-9]{4}-[0-9]{2}-[0-9]{2}T[0-9]{2}:[0-9]{2}:[0-9]{2}Z \\[orv\\] WARN  early 7\n"
      "[^ ]+ \\[n{63}\\] \\?     odd\n$");
}

TEST(DiagnosticLog, DoesNotCutLongLines) {
  const std::string message = std::string(5000, 'x') + "%s%n";
  EXPECT_TRUE(logged(LogLevel::Error, message).ends_with("ERROR " + message + "\n"));
}

TEST(RunLogDeathTest, CutsMessagesFollowsRotationAndRecordsTheStop) {
  const TempDir dir;
  const std::string path = dir.file("a/b/tool.log");
  const std::string option = "--log-path=" + dir.file("a/b");
  const std::vector<const char*> words = {"orv_tool", "--no-syslog", option.c_str()};
  EXPECT_EXIT(
      {
        runlog_init(ArgList(words), "orv_tool");
        runlog_msg(2, "a bit that the mask lacks");
        (void)::rename(path.c_str(), (path + ".1").c_str());
        runlog_msg(kRunlogBasic, "%s", std::string(600, 'x').c_str());
        std::exit(3);
      },
      testing::ExitedWithCode(3), "");
  const std::string rotated = test::read_file(path + ".1");
  EXPECT_TRUE(rotated.ends_with(" started\n")) << rotated;
  const std::string log = test::read_file(path);
  EXPECT_TRUE(contains(log, " " + std::string(511, 'x') + "\n"));
  EXPECT_TRUE(log.ends_with(" stopped exit=3\n")) << log;
}

TEST(PrivilegesDeathTest, AreGivenUpForGoodOrNotAtAll) {
  if (::geteuid() != 0) {
    EXPECT_EQ(drop_privileges("orv-no-such-account"), 0);  // nothing to give up
    GTEST_SKIP() << "the rest needs root";
  }
  EXPECT_EXIT(std::exit(-drop_privileges("orv-no-such-account")), testing::ExitedWithCode(1),
              "the 'orv-no-such-account' user does not exist: .*useradd --system orv-no-such");
  EXPECT_EXIT(std::exit(-drop_privileges("root")), testing::ExitedWithCode(1),
              "could still regain root after dropping privileges: refusing to continue");
  EXPECT_EXIT(
      {
        const int dropped = drop_privileges("nobody");
        std::exit(dropped == 0 && ::setuid(0) != 0 && ::geteuid() != 0 && ::getegid() != 0 &&
                          drop_privileges("orv-no-such-account") == 0
                      ? 0
                      : 1);
      },
      testing::ExitedWithCode(0), "dropped root, now running as nobody \\(uid=[1-9]");
}

}  // namespace
}  // namespace orv
