#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "cli/commands.h"
#include "cli/scanner.h"
#include "cli/settings.h"

namespace orv {
namespace {

using Words = std::vector<const char*>;

std::vector<std::string> scan(const Words& words) {
  std::vector<std::string> warnings;
  const std::size_t count =
      scan_command_line(ArgList(words), *find_command(words[1]),
                        [&](const std::string& warning) { warnings.push_back(warning); });
  EXPECT_EQ(count, warnings.size());
  return warnings;
}

TEST(Scanner, WarnsOfWhatTheCommandDoesNotTake) {
  // clang-format off
  const std::vector<std::pair<Words, std::vector<std::string>>> cases = {
      {{"p", "list", "--config", "a", "--queue=b", "-h"}, {}},
      {{"p", "list", "extra"}, {"unexpected argument 'extra' ignored"}},
      {{"p", "run", "job", "-"}, {"unexpected argument '-' ignored"}},
      {{"p", "list", ""}, {"unexpected argument '' ignored"}},
      {{"p", "api-token", "add", "name", "--role", "read"}, {}},
      {{"p", "list", "--bogus", "word"}, {"unknown option '--bogus' ignored (with the value after it)"}},
      {{"p", "list", "--bogus=word", "--queue", "q"}, {"unknown option '--bogus=...' ignored"}},
      {{"p", "list", "--bogus", "--queue", "q"}, {"unknown option '--bogus' ignored"}},
      // A switch has no "=" form.
      {{"p", "run", "j", "--force=yes"}, {"unknown option '--force=...' ignored"}},
      // A known option takes any next word as its value, whatever it looks like.
      {{"p", "list", "--queue", "--config", "a"}, {"unexpected argument 'a' ignored"}},
      {{"p", "list", "--", "--bogus", "extra"}, {}},
      {{"p", "list", "--queue"}, {}},
      {{"p", "list", "--bogus", "-"}, {"unknown option '--bogus' ignored", "unexpected argument '-' ignored"}},
      // Another command's option is unknown here; the run log's need the run log.
      {{"p", "list", "--force"}, {"unknown option '--force' ignored"}},
      {{"p", "list", "--%s%n", "x"}, {"unknown option '--%s%n' ignored (with the value after it)"}},
  };
  // clang-format on
  for (const auto& [words, warnings] : cases) {
    EXPECT_EQ(scan(words), warnings) << testing::PrintToString(words);
  }
}

TEST(Settings, FlagThenFileThenDefault) {
  SchedSection sched;
  const auto settled = [&](const Words& words) { return settle({"cfg", "queue", words}, sched); };
  const Words none = {"p", "daemon"};
  EXPECT_EQ(settled(none).poll_interval_s, 30U);
  EXPECT_EQ(settled(none).busy_retry_s, 30U);
  EXPECT_EQ(settled(none).run.timeout_s, 86400U);
  EXPECT_EQ(settled(none).run.job_log_dir, "/var/log/orv/orv_sched-jobs");
  EXPECT_EQ(settled(none).run.job_log_keep, 20U);

  const Words flags = {"p", "daemon",        "--poll-interval", "7", "--job-log-keep",
                       "0", "--job-log-dir="};
  EXPECT_EQ(settled(flags).busy_retry_s, 7U);  // the settled poll interval
  sched.busy_retry_s = 9;
  sched.job_log_keep = 3;
  sched.job_timeout_s = 5;
  EXPECT_TRUE(sched.job_log_dir.set("/logs"));
  EXPECT_EQ(settled(flags).busy_retry_s, 9U);
  EXPECT_EQ(settled(flags).run.job_log_keep, 0U);  // a flag's 0 counts
  EXPECT_EQ(settled(flags).run.timeout_s, 5U);
  EXPECT_EQ(settled(flags).run.job_log_dir, "");
  EXPECT_EQ(settled(none).run.job_log_dir, "/logs");
}

}  // namespace
}  // namespace orv
