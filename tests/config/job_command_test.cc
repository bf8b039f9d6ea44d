#include "config/job_command.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "config/config.h"
#include "config/job_argv.h"

namespace orv {
namespace {

using testing::ElementsAre;

std::vector<std::string> tokens_of(std::string_view text) {
  std::vector<std::string> tokens;
  std::array<char, 128> err{};
  const int count = tokenize_args(text, tokens, kMaxArgTokens, err);
  EXPECT_EQ(count, static_cast<int>(tokens.size()));
  EXPECT_STREQ(err.data(), "");
  return tokens;
}

std::string token_fault(std::string_view text, std::size_t max_tokens = kMaxArgTokens) {
  std::vector<std::string> tokens;
  std::array<char, 128> err{};
  EXPECT_EQ(tokenize_args(text, tokens, max_tokens, err), -1);
  return err.data();
}

TEST(TokenizeArgs, SplitsAtWhiteSpaceAndClosingQuotes) {
  EXPECT_THAT(tokens_of(" \t\v\n "), ElementsAre());
  EXPECT_THAT(tokens_of("\"\""), ElementsAre(""));
  EXPECT_THAT(tokens_of("\"a\"b \"c\"\"d e\""), ElementsAre("a", "b", "c", "d e"));
  EXPECT_THAT(tokens_of(R"("a\"b\\c\d" e\"f)"), ElementsAre(R"(a"b\c\d)", R"(e\"f)"));
  EXPECT_THAT(tokens_of("'a b' --x=\"y z\""), ElementsAre("'a", "b'", "--x=\"y", "z\""));
  EXPECT_THAT(tokens_of(std::string(kMaxArgToken, 'a')), ElementsAre(testing::SizeIs(1023)));
}

TEST(TokenizeArgs, SaysWhatItRefuses) {
  EXPECT_EQ(token_fault("a \"b"), "unterminated quote in 'args'");
  EXPECT_EQ(token_fault(R"("b\")"), "unterminated quote in 'args'");
  EXPECT_EQ(token_fault("a b \"", 2), "too many tokens in 'args'");
  EXPECT_EQ(token_fault(std::string(kMaxArgToken + 1, 'a')), "token too long in 'args'");
}

// The vector with --background asked for.
std::vector<std::string> argv_of(const Job& job) {
  std::vector<const char*> argv;
  EXPECT_TRUE(build_argv(job, true, argv, {}));
  EXPECT_EQ(argv.back(), nullptr);
  return {argv.begin(), argv.end() - 1};
}

TEST(BuildArgv, PutsTheJobsArgumentsAfterItsSettings) {
  Job job;
  job.command = JobCommand::Agent;
  job.profile.set_truncated("www");
  job.retention.set_truncated("4w");
  job.retention_class.set_truncated("gold");
  job.args = {"--all", ""};
  EXPECT_THAT(argv_of(job), ElementsAre("orv_agent", "--name", "www", "--background", "--retention",
                                        "4w", "--retention-class", "gold", "--all", ""));
}

TEST(BuildArgv, LeavesOutWhatTheCommandDoesNotTake) {
  Job job;
  job.command = JobCommand::MaintScrub;
  job.retention.set_truncated("4w");
  job.args = {"x"};
  EXPECT_THAT(argv_of(job), ElementsAre("orv_maintenance", "scrub", "x"));

  job.command = static_cast<JobCommand>(11);
  std::vector<const char*> argv;
  std::array<char, 64> err{};
  EXPECT_FALSE(build_argv(job, true, argv, err));
  EXPECT_STREQ(err.data(), "internal error: unknown command enum 11");
}

TEST(JobCommands, AreFoundByNameAndByValue) {
  std::uint32_t taking_background = 0;
  for (const JobCommandRow& row : job_commands()) {
    JobCommand command{};
    EXPECT_TRUE(parse_command(row.name, command));
    EXPECT_EQ(command, row.command);
    EXPECT_STREQ(command_name(command), row.name);
    taking_background += takes_background(command) ? 1U : 0U;
  }
  EXPECT_EQ(taking_background, 3U);
  JobCommand command = JobCommand::Verify;
  EXPECT_FALSE(parse_command("Agent", command));
  EXPECT_EQ(command, JobCommand::Verify);
  EXPECT_STREQ(command_name(static_cast<JobCommand>(11)), "?");
  EXPECT_FALSE(command_allowed(UINT32_MAX, static_cast<JobCommand>(32)));
  EXPECT_FALSE(command_allowed(kDefaultAllowedCommands, JobCommand::MaintPrune));
  EXPECT_TRUE(command_allowed(kDefaultAllowedCommands, JobCommand::MaintScrub));
}

}  // namespace
}  // namespace orv
