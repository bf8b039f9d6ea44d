#include "sched/result_mail.h"

#include <gtest/gtest.h>
#include <sys/socket.h>
#include <unistd.h>

#include <ctime>
#include <optional>
#include <string>

#include "support/support.h"

namespace orv {
namespace {

using test::contains;
using test::TempDir;

// A supervisor whose network process is the test, at the other end of the socket.
class ResultMailTest : public ::testing::Test {
 protected:
  ResultMailTest() {
    int ends[2];
    EXPECT_EQ(::socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0, ends), 0);
    supervisor_.child.fd.reset(ends[0]);
    child_.reset(ends[1]);
    config_.mail.present = true;
    config_.mail.notify = Notify::Failed;
    config_.jobs.resize(1);
    EXPECT_TRUE(config_.jobs[0].name.set("nightly"));
    result_.result = RunResult::Failed;
    EXPECT_TRUE(result_.command.set("orv_agent --name p"));
  }
  // The mail that arrived, as it lies in its record; nothing when none did.
  std::optional<std::string> mail() {
    (void)test::stderr_of([this] { send_result_mail(config_, "nightly", result_, &supervisor_); });
    std::string record(70000, '\0');
    const ssize_t got = ::recv(child_.get(), record.data(), record.size(), MSG_DONTWAIT);
    if (got <= 0) return std::nullopt;
    record.resize(static_cast<std::size_t>(got));
    return record;
  }

  TempDir dir_;
  Config config_;
  JobRunResult result_;
  NetSupervisor supervisor_;
  ScopedFd child_;
};

TEST_F(ResultMailTest, AsksTheJobThenTheMailSection) {
  static constexpr struct {
    RunResult result;
    Notify job, mail;
    bool wanted;
  } kCases[] = {
      {RunResult::Busy, Notify::Always, Notify::Always, false},
      {RunResult::Failed, Notify::Inherit, Notify::Failed, true},
      {RunResult::Done, Notify::Inherit, Notify::Failed, false},
      {RunResult::Done, Notify::Inherit, Notify::Always, true},
      {RunResult::Failed, Notify::Never, Notify::Always, false},
      {RunResult::Done, Notify::Always, Notify::Never, true},
      {RunResult::Done, Notify::Failed, Notify::Always, false},
  };
  for (const auto& c : kCases) {
    result_.result = c.result;
    config_.jobs[0].notify = c.job;
    config_.mail.notify = c.mail;
    EXPECT_EQ(mail().has_value(), c.wanted) << &c - kCases;
  }
  config_.mail.present = false;
  EXPECT_FALSE(mail().has_value());
}

TEST_F(ResultMailTest, TellsTheRunInLocalTime) {
  const test::ScopedTimeZone zone("CET-1");
  result_.started = 1791208800;
  result_.finished = result_.started + 3725;
  result_.timed_out = true;
  const std::string text = mail().value_or("");
  EXPECT_TRUE(contains(text, ": job nightly FAILED"));
  EXPECT_TRUE(contains(text, "Job:       nightly\nHost:      "));
  EXPECT_TRUE(
      text.ends_with("Result:    FAILED\nExit code: 0 (timed out)\n"
                     "Command:   orv_agent --name p\n"
                     "Started:   2026-10-05 15:00:00 CET\n"
                     "Finished:  2026-10-05 16:02:05 CET\n"
                     "Duration:  1h 02m 05s\nJob log:   (none)\n"));
}

TEST_F(ResultMailTest, EndsWithTheLastLinesOfTheLog) {
  std::string numbered;
  for (int n = 1; n <= 100; ++n) numbered += std::to_string(n) + "\n";
  const std::string last40 = numbered.substr(numbered.find("61\n"));
  const struct {
    std::string log, tail;
  } cases[] = {
      {numbered, last40},
      {numbered + "\n", last40.substr(3) + "\n"},
      {std::string("one\ntw\0o\n", 9), "one\ntw o\n"},
      {"", ""},
      {std::string(20000, 'x'), std::string(16384, 'x')},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.log.substr(0, 20));
    const std::string path = dir_.write("job.log", c.log);
    ASSERT_TRUE(result_.log_path.set(path));
    const std::string text = mail().value_or("");
    EXPECT_TRUE(
        text.ends_with("Job log:   " + path + "\n\n--- last lines of the job log ---\n" + c.tail));
  }
  ASSERT_TRUE(result_.log_path.set(dir_.file("gone")));
  EXPECT_TRUE(mail().value_or("").ends_with("--- last lines of the job log ---\n"));
}

}  // namespace
}  // namespace orv
