#include "common/log.h"

#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <array>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

#include "common/privileges.h"
#include "common/scoped_fd.h"
#include "common/service_manager.h"
#include "support/support.h"

namespace orv {
namespace {

using test::contains;
using test::TempDir;

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
  const auto act = [&] { log_msg(LogLevel::Error, "%s", message.c_str()); };
  EXPECT_TRUE(test::stderr_of(act).ends_with("ERROR " + message + "\n"));
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

TEST(JournalDeathTest, LinesCarryTheirPriorityWhenStandardErrorIsTheJournal) {
  EXPECT_EXIT(
      {
        struct stat st {};
        (void)::fstat(STDERR_FILENO, &st);
        const std::string stream = std::to_string(st.st_dev) + ":" + std::to_string(st.st_ino);
        (void)::setenv("JOURNAL_STREAM", stream.c_str(), 1);
        log_msg(LogLevel::Warn, "late");
        std::exit(0);
      },
      testing::ExitedWithCode(0), "^<4>[0-9-]+T[^ ]+Z \\[orv\\] WARN  late\n$");
}

TEST(ServiceManager, IsToldAndHiddenFromTools) {
  const TempDir dir;
  const ScopedFd manager(::socket(AF_UNIX, SOCK_DGRAM, 0));
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  std::snprintf(address.sun_path, sizeof address.sun_path, "%s", dir.file("notify").c_str());
  ASSERT_EQ(::bind(manager.get(), reinterpret_cast<sockaddr*>(&address), sizeof address), 0);
  (void)::setenv("NOTIFY_SOCKET", address.sun_path, 1);
  const ServiceManager service;
  EXPECT_EQ(std::getenv("NOTIFY_SOCKET"), nullptr);
  EXPECT_FALSE(ServiceManager().present());
  service.ready("idle");
  service.stopping("after job 'a'\nREADY=1");
  for (const char* expected : {"READY=1\nSTATUS=idle", "STOPPING=1\nSTATUS=after job 'a'"}) {
    std::array<char, 256> message{};
    ASSERT_GT(::recv(manager.get(), message.data(), message.size() - 1, MSG_DONTWAIT), 0);
    EXPECT_STREQ(message.data(), expected);
  }
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
