#include "plan/health.h"

#include <sys/stat.h>

#include <filesystem>

#include "json/json.h"
#include "plan/health_report.h"
#include "plan/history.h"
#include "plan/job_facts.h"
#include "plan/plan_fixture.h"

namespace orv {
namespace {

using test::contains;
using test::kDay;
using test::kHour;
using test::kMonday;
using test::PlanTest;
using test::ScopedTimeZone;

constexpr std::int64_t kNoon = kMonday + 12 * kHour;
constexpr std::int64_t kAge = 35400;  // of the last success at noon

// A nightly job that succeeded last night and took ten minutes, and what is different about it:
// seconds before noon or of length, 0 when there is no such thing.
struct HealthCase {
  const char* what;
  Health health;
  std::uint32_t failures = 0;
  std::int64_t due = 0, running = 0;
  std::int64_t gap = kDay, median = 600, limit = kDay, max_age = 0;
  bool enabled = true, once = false, other_running = false;
  bool ran = true, succeeded = true;
};

std::optional<std::int64_t> known(std::int64_t seconds, std::int64_t from = 0) {
  return seconds == 0 ? std::nullopt : std::optional(from == 0 ? seconds : from - seconds);
}

JobFacts facts_of(const HealthCase& c) {
  JobFacts facts;
  facts.enabled = c.enabled;
  facts.has_time_or_dependencies = true;
  facts.once = c.once;
  facts.running_since = known(c.running, kNoon);
  facts.other_running = c.other_running;
  facts.due_since = known(c.due, kNoon);
  facts.first_start = c.ran ? std::optional(kMonday - 20 * kDay) : facts.running_since;
  if (c.ran && c.succeeded) facts.last_success.emplace().end = kNoon - kAge;
  facts.failures = c.failures;
  facts.median_s = known(c.median);
  facts.longest_gap = known(c.gap);
  facts.time_limit = c.limit;
  return facts;
}

TEST(Health, IsTheFirstWordThatApplies) {
  using enum Health;
  // clang-format off
  const HealthCase cases[] = {
      {.what = "all is well",                             .health = Ok},
      {.what = "failed",                                  .health = Failed, .failures = 2},
      {.what = "failed, and runs again",                  .health = Failed, .failures = 1, .running = 60},
      {.what = "disabled hides all",                      .health = Disabled, .failures = 3, .enabled = false},
      {.what = "no success for twice the gap",            .health = Ok, .gap = kAge / 2},
      {.what = "and a second more",                       .health = Stale, .gap = kAge / 2 - 1},
      {.what = "one limit for all",                       .health = Stale, .max_age = kAge - 1},
      {.what = "which may be the longer one",             .health = Ok, .gap = 60, .max_age = kDay},
      {.what = "none succeeded since the first run",      .health = Stale, .succeeded = false},
      {.what = "a once job is never stale",               .health = Ok, .max_age = 60, .once = true},
      {.what = "no gap is known",                         .health = Ok, .gap = 0},
      {.what = "due for ten minutes",                     .health = Ok, .due = 600},
      {.what = "due for longer",                          .health = Late, .due = 601},
      {.what = "due behind a running job",                .health = Waiting, .due = 7000, .other_running = true},
      {.what = "running",                                 .health = Running, .running = 1800},
      {.what = "over three medians",                      .health = Slow, .running = 1801},
      {.what = "over three short ones, not ten minutes",  .health = Running, .running = 600, .median = 5},
      {.what = "near its time limit",                     .health = Slow, .running = 91, .median = 0, .limit = 100},
      {.what = "never ran",                               .health = Never, .ran = false},
      {.what = "first run goes on",                       .health = Running, .running = 60, .ran = false},
  };
  // clang-format on
  for (const HealthCase& c : cases) {
    const Health health = job_health(facts_of(c), kNoon, known(c.max_age));
    EXPECT_STREQ(health_name(health), health_name(c.health)) << c.what;
  }
}

TEST(LongestGaps, LookAtTenTimesOnEitherSide) {
  static constexpr struct {
    const char* zone;
    const char* config;     // of job "a"
    std::int64_t now, gap;  // gap: seconds, 0: none
  } kCases[] = {
      {"UTC", "schedule=0 2 * * *\n", kMonday, kDay},
      {"UTC", "schedule=*/15 * * * *\n", kMonday, 900},
      {"UTC", "schedule=0 8-17 * * 1-5\n", kMonday, 63 * kHour},  // over the weekend
      {"UTC", "schedule=0 0 30 2 *\n", kMonday, 0},
      {"UTC", "schedule=0 3 29 2 *\n", kMonday, 1461 * kDay},
      // The night in which the clock goes back has an hour more, also a few days away.
      {"Europe/Berlin", "schedule=0 12 * * *\n", 1792918800 - 3 * kDay, kDay + kHour},
      {"Europe/Berlin", "schedule=0 12 * * *\n", 1792918800 - 20 * kDay, kDay},
      // A time that the change forward skips leaves two days.
      {"Europe/Berlin", "schedule=30 2 * * *\n", 1806105600, 2 * kDay - kHour},
      {"UTC", "after=w\n[w]\nschedule=0 1 * * 0\n", kMonday, 7 * kDay},
      {"UTC", "schedule=0 2 * * *\nafter=w\n[w]\nschedule=0 1 * * 0\n", kMonday, 7 * kDay},
      {"UTC", "after=o\n[o]\nonce=1796601600\n", kMonday, 0},
  };
  for (const auto& c : kCases) {
    SCOPED_TRACE(std::string(c.zone) + " " + c.config);
    const ScopedTimeZone zone(c.zone);
    const auto config = test::parsed(std::string("[a]\n") + c.config);
    EXPECT_EQ(LongestGaps(*config, c.now).of(config->jobs[0]).value_or(0), c.gap);
  }
}

TEST(NextStart, IsATimeToComeWhileTheJobRuns) {
  const auto config = test::parsed("[a]\nschedule=0 2 * * *\n");
  QueueRecord record{};
  record.next_run = kMonday + 60;  // run by hand before its time
  EXPECT_EQ(next_start(config->jobs[0], record, kMonday, true), kMonday + 60);
  record.next_run = kMonday - 60;
  EXPECT_EQ(next_start(config->jobs[0], record, kMonday, true), kMonday + 2 * kHour);
  EXPECT_EQ(next_start(config->jobs[0], record, kMonday, false), kMonday - 60);
}

class HealthReportTest : public PlanTest {
 protected:
  HealthReport report(bool daemon = true) {
    DaemonProcess process;
    process.running = daemon;
    return make_health_report(plan_, process, std::nullopt, nullptr);
  }
  JobFacts facts(const char* name) {
    JobRuns runs = runs_of(plan_, job(name));
    LongestGaps gaps(plan_.config, plan_.now);
    return collect_facts(plan_, job(name), runs, gaps);
  }
};

TEST_F(HealthReportTest, BusyRunsNeitherEndNorExtendARowOfFailures) {
  start("[a]\nschedule=0 2 * * *\n");
  log("a", kMonday - 6 * kDay, 100);
  log("a", kMonday - 5 * kDay, 200, 1);
  log("a", kMonday - 4 * kDay, 5, 75);
  log("a", kMonday - 3 * kDay, -1);  // lost
  log("a", kMonday - 2 * kDay, 5, 75);
  const JobFacts f = facts("a");
  EXPECT_EQ(f.failures, 2U);
  EXPECT_EQ(f.failing_since, kMonday - 5 * kDay);
  EXPECT_EQ(failure_text(*f.last_failure), "lost");
  EXPECT_EQ(f.last_success->start, kMonday - 6 * kDay);
  EXPECT_EQ(f.last_finished->outcome, PastOutcome::Busy);
  EXPECT_EQ(f.usual_s, 100);
}

TEST_F(HealthReportTest, TheQueueCompletesTheLogs) {
  start("[unlogged]\nschedule=0 2 * * *\n[cut]\nschedule=0 2 * * *\n[lost]\nschedule=0 2 * * *\n");
  for (const char* name : {"unlogged", "cut", "lost"}) {
    record_set_state(record(name), JobState::Failed);
    record(name).started_at = kMonday - 1000;
    record(name).finished_at = kMonday - 400;
    record(name).exit_code = 3;
  }
  record("lost").finished_at = 0;  // what the sweep of a dead runner leaves
  log("cut", kMonday - 1000, -1);
  settle();
  EXPECT_EQ(facts("unlogged").last_run->exit_code, 3);
  EXPECT_EQ(facts("cut").last_run->end, kMonday - 400);
  EXPECT_EQ(facts("lost").last_run->outcome, PastOutcome::Lost);
  EXPECT_EQ(report().jobs[1].notes.at(0).fault, LogFault::Cut);
}

TEST_F(HealthReportTest, WhatIsDueIsWorkedOutByTheSchedulersRule) {
  start("[a]\nschedule=0 2 * * *\n[b]\nafter=a\n[c]\nschedule=0 1 * * *\nafter=b\n");
  record("a").next_run = kMonday - 700;
  record("c").next_run = kMonday - 7000;  // waits for b all the same
  settle();
  EXPECT_EQ(facts("a").due_since, kMonday - 700);
  EXPECT_EQ(facts("c").due_since, std::nullopt);
  record_set_state(record("a"), JobState::Done);
  record("a").started_at = kMonday - 2000;
  record("a").finished_at = kMonday - 900;
  settle();
  EXPECT_EQ(facts("b").due_since, kMonday - 900);
}

TEST_F(HealthReportTest, BadLogsCostNothingElseItsAnswer) {
  start("[a]\nschedule=0 2 * * *\n[dir]\nschedule=0 2 * * *\n");
  log("a", kMonday - 2 * kDay, 100);
  dir_.write("logs/a/20261206T020000Z.log", "job: other\n");
  dir_.write("logs/a/20261206T030000Z.log", "jo");  // a full disk
  dir_.write("logs/a/notes.txt", "no run");
  std::filesystem::create_symlink("/etc/passwd", dir_.file("logs/a/20261206T040000Z.log"));
  ASSERT_EQ(::mkfifo(dir_.file("logs/a/20261206T050000Z.log").c_str(), 0600), 0);
  dir_.write("logs/dir", "a file where a directory should be");
  HealthReport all = report();
  EXPECT_EQ(all.jobs[0].facts.last_success->start, kMonday - 2 * kDay);
  EXPECT_EQ(all.jobs[0].facts.failures, 1U);  // the cut one never ended
  EXPECT_EQ(all.jobs[0].notes.size(), 4U);
  EXPECT_TRUE(contains(all.logs_message, "logs/dir cannot be read"));
  EXPECT_TRUE(contains(health_text(all, false), "is no log of this job"));
  EXPECT_FALSE(contains(health_prometheus(all), "consecutive_failures{job=\"dir\"}"));
}

TEST_F(HealthReportTest, StatusesFollowThePluginConvention) {
  start("[a]\nschedule=0 2 * * *\n[b]\nenabled=no\n");
  const auto nagios = [&](const HealthReport& of) {
    int status = -1;
    const std::string text = health_nagios(of, status);
    return std::to_string(status) + " " + text.substr(0, text.find(" - "));
  };
  EXPECT_EQ(nagios(report()), "1 ORV_SCHED WARNING");  // a has never run
  log("a", kMonday - kHour, 60);
  EXPECT_EQ(nagios(report()), "0 ORV_SCHED OK");
  EXPECT_FALSE(health_wrong(report()));
  EXPECT_EQ(nagios(report(false)), "2 ORV_SCHED CRITICAL");
  EXPECT_TRUE(health_wrong(report(false)));
  HealthReport unreadable = report();
  unreadable.queue_message = "Permission denied";
  EXPECT_EQ(nagios(unreadable), "3 ORV_SCHED UNKNOWN");
  unreadable.jobs[0].health = Health::Stale;
  EXPECT_EQ(nagios(unreadable), "2 ORV_SCHED CRITICAL");
  HealthReport refused = report();
  refused.config_message = "a|b";
  refused.jobs.clear();
  EXPECT_EQ(nagios(refused), "1 ORV_SCHED WARNING");
  int status = 0;
  EXPECT_TRUE(contains(health_nagios(refused, status), "a\\x7cb"));
  EXPECT_TRUE(contains(health_nagios(report(false), status), "2 jobs, none in trouble; no daemon"));
}

TEST(PrometheusLabel, IsTakenByTheParserAndNeverShared) {
  static constexpr std::pair<std::string_view, const char*> kCases[] = {
      {"plain job", "plain job"},
      {"a\"b\\c\nd", "a\\\"b\\\\c\\nd"},
      {"\u00e9\x1b", "\u00e9\x1b"},
      {"\xff", "\\\\xff"},
      {"\\xff", "\\\\x5cxff"},  // not the one before
      {"\\x5cxff", "\\\\x5cx5cxff"},
      {"\\x", "\\\\x"},
      {"\xed\xa0\x80", "\\\\xed\\\\xa0\\\\x80"},
  };
  for (const auto& [name, label] : kCases) EXPECT_EQ(prometheus_label(name), label) << label;
}

TEST_F(HealthReportTest, MetricsLeaveOutWhatIsNotKnown) {
  start("[a]\nschedule=0 2 * * *\n[b]\nenabled=no\n");
  log("a", kMonday - kHour, 60, 4);
  const std::string text = health_prometheus(report());
  for (const char* line :
       {"orv_sched_up 1\n", "orv_sched_configuration_valid 1\n",
        "orv_sched_collected_timestamp_seconds 1796601600\n", "job_enabled{job=\"b\"} 0\n",
        "last_run_timestamp_seconds{job=\"a\"} 1796598000\n", "last_exit_code{job=\"a\"} 4\n",
        "last_duration_seconds{job=\"a\"} 60\n", "consecutive_failures{job=\"a\"} 1\n",
        "next_run_timestamp_seconds{job=\"a\"} 1796608800\n", "late_seconds{job=\"a\"} 0\n",
        "job_health{job=\"a\",health=\"failed\"} 1\n", "job_health{job=\"a\",health=\"ok\"} 0\n",
        "job_health{job=\"b\",health=\"disabled\"} 1\n"}) {
    EXPECT_TRUE(contains(text, line)) << line << text;
  }
  EXPECT_FALSE(contains(text, "last_success"));
  EXPECT_FALSE(contains(text, "usual_duration"));
  EXPECT_FALSE(contains(text, "last_run_timestamp_seconds{job=\"b\"}"));
}

TEST_F(HealthReportTest, JsonIsOneObjectThatTheReaderTakes) {
  start("[\xff\"]\nschedule=0 2 * * *\n");
  const std::string text = health_json(report());
  std::array<char, 256> err{};
  std::unique_ptr<JsonValue> value;
  ASSERT_EQ(json_parse(text, {}, value, err), 0) << err.data() << text;
  EXPECT_TRUE(contains(text, "\"health\":\"never\"")) << text;
  EXPECT_TRUE(contains(text, "\"last_run\":null"));
  HealthReport refused = report();
  refused.config_message = "t:1: no";
  EXPECT_TRUE(contains(health_json(refused), "\"jobs\":null"));
}

}  // namespace
}  // namespace orv
