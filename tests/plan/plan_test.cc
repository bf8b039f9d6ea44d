#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <array>
#include <filesystem>
#include <string>
#include <vector>

#include "common/times.h"
#include "config/config.h"
#include "plan/describe.h"
#include "plan/findings.h"
#include "plan/forecast.h"
#include "plan/history.h"
#include "plan/svg.h"
#include "sched/process.h"
#include "sched/queue_runner.h"
#include "sched/queue_schedule.h"
#include "support/support.h"

namespace orv {
namespace {

using test::contains;
using test::ScopedTimeZone;
using test::TempDir;

constexpr std::int64_t kMonday = 1796601600;  // 2026-12-07 00:00:00 UTC

void load(Config& config, std::string_view text) {
  std::array<char, kConfigMessageSize> err{};
  ASSERT_EQ(config_parse(text, "test.cfg", config, err), 0) << err.data();
}

CronSpec cron(const char* text) {
  CronSpec fields;
  std::array<char, 128> err{};
  EXPECT_EQ(cron_parse(text, fields, err), 0) << err.data();
  return fields;
}

TEST(ScheduleInWords, SaysWhatTheFieldsMean) {
  struct Case {
    const char* schedule;
    const char* words;
  };
  static constexpr Case kCases[] = {
      {"30 2 * * *", "at 02:30"},
      {"* * * * *", "every minute"},
      {"*/15 * * * *", "every 15 minutes"},
      {"5 * * * *", "at minute 5 of every hour"},
      {"*/20 8-18 * * 1-5", "every 20 minutes of hour 8 to 18, on Monday to Friday"},
      {"0 3 1,15 * *", "at 03:00, on day 1, 15 of the month"},
      {"0 0 13 * 5", "at 00:00, on day 13 of the month when it is Friday"},
      {"0 4 * 1,7 7", "at 04:00, on Sunday, in January, July"},
      {"0 */6 * * *", "at 00:00, 06:00, 12:00, 18:00"},
  };
  for (const Case& c : kCases) EXPECT_EQ(schedule_in_words(cron(c.schedule)), c.words);
}

class PlanTest : public ::testing::Test {
 protected:
  ScopedTimeZone zone_{"UTC"};
  TempDir dir_;
  Config config_;
  QueueState queue_;
  Durations durations_;

  // The configuration, and the queue as a daemon would have it at kMonday.
  void start(std::string_view text) {
    load(config_, text);
    queue_view_with_config(queue_, config_, kMonday);
  }
  Forecast forecast(std::int64_t hours) {
    return make_forecast(config_, queue_, durations_, kMonday, kMonday + hours * 3600);
  }
  static std::vector<std::string> lines(const Forecast& forecast) {
    std::vector<std::string> out;
    for (const PlannedRun& run : forecast.runs) {
      out.push_back(std::string(run.job->name.view()) + " " +
                    local_time_cell(run.start).substr(11, 5) + " " + duration_text(run.late_s) +
                    (run.guessed ? " ~" : ""));
    }
    return out;
  }
};

TEST_F(PlanTest, RunsAreSerialAndChainsFollow) {
  start(
      "[backup]\nschedule=0 1 * * *\n[other]\nschedule=10 1 * * *\n"
      "[verify]\ncommand=verify\nafter=backup,other\n[off]\nenabled=no\nschedule=* * * * *\n");
  durations_ = {{"backup", 3600}, {"other", 1800}, {"verify", 60}};
  // backup takes an hour, so other is 50 minutes late, and verify needs both.
  EXPECT_EQ(lines(forecast(24)), (std::vector<std::string>{"backup 01:00 0s", "other 02:00 50m 00s",
                                                           "verify 02:30 0s"}));
}

TEST_F(PlanTest, AnUnknownDurationIsMarkedAsAGuess) {
  start("[a]\nonce=" + std::to_string(kMonday + 60) + "\n");
  EXPECT_EQ(lines(forecast(1)), std::vector<std::string>{"a 00:01 0s ~"});
}

TEST_F(PlanTest, ARunByHandLeavesTheTimeThatIsSet) {
  start("[hand]\nschedule=0 1 * * *\n[due]\nschedule=0 1 * * *\n");
  durations_ = {{"hand", 7200}, {"due", 7200}};
  for (QueueRecord& record : queue_.records()) {
    record_set_state(record, JobState::Running);
    record.started_at = kMonday - 600;
  }
  queue_find(queue_, "due")->next_run = kMonday - 600;
  // Both run now, one of them before its time: that time comes when the other has ended.
  EXPECT_EQ(lines(forecast(24)),
            (std::vector<std::string>{"hand 23:50 0s", "due 23:50 0s", "hand 01:50 50m 00s"}));
}

TEST_F(PlanTest, ALostRunIsFailedAndDueAgain) {
  start("[a]\nschedule=0 1 * * *\n");
  QueueRecord& record = *queue_find(queue_, "a");
  record_set_state(record, JobState::Running);
  queue_set_runner_pid(record, kMaxRunnerPid);  // no such process
  record.started_at = record.next_run = kMonday - 3600;
  queue_view_without_stale_runners(queue_);
  EXPECT_EQ(lines(forecast(2)), (std::vector<std::string>{"a 00:00 1h 00m ~", "a 01:00 0s ~"}));
}

TEST_F(PlanTest, ThePictureHoldsWellFormedTextOnly) {
  start("[<a&b>\x1b\xff\xc3\xa9]\nschedule=0 1 * * *\n");
  const std::string svg = forecast_svg(config_, forecast(24), kMonday, kMonday + 86400);
  EXPECT_TRUE(contains(svg, ">&lt;a&amp;b&gt;\\x1b\\xff\xc3\xa9</text>")) << svg;
  EXPECT_FALSE(contains(svg, "<a&b>"));
  EXPECT_TRUE(contains(svg, "<rect x="));
}

TEST(Printable, LeavesNothingThatATerminalObeys) {
  struct Case {
    std::string_view text;
    const char* shown;
  };
  static constexpr Case kCases[] = {
      {"job 1", "job 1"},
      {"\x1b[2J\x7f", "\\x1b[2J\\x7f"},
      {"\u00e9\u20ac\U0001f600", "\u00e9\u20ac\U0001f600"},
      {"\xc2\x9b", "\\xc2\\x9b"},
      {"\xe2\x82", "\\xe2\\x82"},
      {"\xed\xa0\x80", "\\xed\\xa0\\x80"},
  };
  for (const Case& c : kCases) EXPECT_EQ(printable(c.text), c.shown);
}

TEST_F(PlanTest, WhyNamesEachThingThatBlocks) {
  start(
      "[first]\nschedule=0 1 * * *\n[second]\nafter=first\n[third]\nafter=first\n"
      "after-mode=finished\n[off]\nenabled=no\n");
  const auto why = [&](const char* name) {
    std::string text;
    for (const std::string& reason : blockers(config_, queue_, *find_job(config_, name), kMonday)) {
      text += reason + "\n";
    }
    return text;
  };
  EXPECT_EQ(why("off"), "it is disabled (enabled=no)\n");
  EXPECT_EQ(why("first"), "its time is 2026-12-07 01:00:00, in 1h 00m\n");
  EXPECT_TRUE(contains(why("second"), "waits for job 'first'"));

  QueueRecord& first = *queue_find(queue_, "first");
  record_set_state(first, JobState::Failed);
  first.finished_at = kMonday - 10;
  EXPECT_TRUE(contains(why("second"), "failed"));
  EXPECT_EQ(why("third"), "");  // it starts at the next look

  queue_find(queue_, "third")->after_stamp = kMonday - 10;
  EXPECT_TRUE(contains(why("third"), "has run for the last end"));
  first.next_run = kNever;
  EXPECT_TRUE(contains(why("first"), "never runs"));

  first.next_run = kMonday;
  queue_find(queue_, "third")->after_stamp = 0;
  EXPECT_EQ(why("third"),
            "it is due, but job 'first' is due too and stands before it in the configuration\n");
  // A run file whose runner is gone; this very process stands for the tool that goes on.
  queue_.path = dir_.file("queue");
  std::filesystem::create_symlink(
      boot_name() + "/1.1/" + std::to_string(::getpid()) + ".0/first//log", queue_.path + ".run.1");
  EXPECT_TRUE(contains(why("third"), "a run of job 'first' whose scheduler is gone"));
}

TEST_F(PlanTest, CheckFindsWhatIsLegalButSurprising) {
  start(
      "[never]\nschedule=0 0 30 2 *\n[slow]\nschedule=0 * * * *\n[fine]\nschedule=0 4 * * *\n"
      "[stuck]\nschedule=0 5 * * *\n[close]\nschedule=0 4,5 * * *\n[past]\nonce=2020-01-01 "
      "10:00\n");
  durations_ = {{"slow", 7200}, {"fine", 7200}, {"close", 7200}};
  queue_find(queue_, "stuck")->next_run = kNever;
  const std::vector<std::string> found = check_jobs(config_, queue_, durations_, kMonday);
  ASSERT_EQ(found.size(), 5U);
  EXPECT_TRUE(contains(found[0], "[never]: the schedule never fires"));
  EXPECT_TRUE(contains(found[1], "[slow]: its last run took 2h 00m"));
  EXPECT_TRUE(contains(found[2], "[stuck]: its record"));
  EXPECT_TRUE(contains(found[3], "[close]: its last run took 2h 00m, longer than the 1h 00m"));
  EXPECT_TRUE(contains(found[4], "[past]: its once time, 2020-01-01 10:00:00, is past"));
}

TEST(ClockChanges, SkippedTimesAreFound) {
  const ScopedTimeZone zone("Europe/Berlin");
  const std::vector<ClockGap> gaps = clock_gaps(kMonday, kMonday + std::int64_t{366} * 86400);
  ASSERT_EQ(gaps.size(), 1U);
  EXPECT_EQ(skipped_times(cron("30 2 * * *"), gaps[0]),
            std::vector<std::string>{"2027-03-28 02:30"});
  EXPECT_TRUE(skipped_times(cron("30 3 * * *"), gaps[0]).empty());
  EXPECT_EQ(clock_text(1793147400), "2026-10-28 01:30:00");
  EXPECT_EQ(clock_text(1792888200), "2026-10-25 02:30:00 CEST");  // and an hour later once more
  EXPECT_EQ(clock_text(1792888200 + 3600), "2026-10-25 02:30:00 CET");
  Config config;
  load(config, "[lost]\nschedule=30 2 * * *\n[hourly]\nschedule=0 * * * *\n");
  QueueState queue;
  queue_view_with_config(queue, config, kMonday);
  const std::vector<std::string> found = check_jobs(config, queue, {}, kMonday);
  ASSERT_FALSE(found.empty());
  for (const std::string& finding : found) EXPECT_TRUE(contains(finding, "[lost]")) << finding;
}

TEST(History, TheNewestRunThatDidWorkCounts) {
  const ScopedTimeZone zone("UTC");
  const TempDir dir;
  const auto log = [&](const char* id, int seconds, int exit_code) {
    const std::string end = std::to_string(kMonday + seconds);
    dir.write("a/" + std::string(id) + ".log", "job: a\n\n--- end ---\nfinish_unix: " + end +
                                                   "\nexit_code: " + std::to_string(exit_code) +
                                                   "\ntimed_out: 0\n");
  };
  log("20261207T000000Z", 120, 0);
  log("20261207T000300Z", 181, 75);
  dir.write("a/20261207T000400Z.log", "job: a\n");
  dir.write("b/20261207T000400Z.log", "\n--- end ---\nfinish_unix: -9223372036854775808\n");
  dir.write("a/notes.log", "no run");
  EXPECT_EQ(last_duration(dir.path(), "a"), 120);
  EXPECT_EQ(past_runs(dir.path(), "a", 9).size(), 3U);
  EXPECT_EQ(last_duration(dir.path(), "b"), std::nullopt);
}

}  // namespace
}  // namespace orv
