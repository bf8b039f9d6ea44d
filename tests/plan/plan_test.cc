#include <unistd.h>

#include <filesystem>
#include <vector>

#include "common/times.h"
#include "plan/check.h"
#include "plan/daemon_process.h"
#include "plan/describe.h"
#include "plan/forecast.h"
#include "plan/local_clock.h"
#include "plan/picture.h"
#include "plan/plan_fixture.h"
#include "plan/why_not.h"
#include "sched/process.h"

namespace orv {
namespace {

using test::contains;
using test::cron;
using test::kDay;
using test::kHour;
using test::kMonday;
using test::ScopedTimeZone;

TEST(ScheduleInWords, SaysWhatTheFieldsMean) {
  static constexpr std::pair<const char*, const char*> kCases[] = {
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
  for (const auto& [schedule, words] : kCases) EXPECT_EQ(schedule_in_words(cron(schedule)), words);
}

class ForecastTest : public test::PlanTest {
 protected:
  Forecast forecast(std::int64_t hours, std::vector<const Job*> by_hand = {}) {
    return make_forecast(plan_.config, plan_.queue, durations_,
                         {plan_.now, plan_.now + hours * kHour, std::move(by_hand)});
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
  using Lines = std::vector<std::string>;

  Durations durations_;
};

TEST_F(ForecastTest, RunsAreSerialAndChainsFollow) {
  start(
      "[backup]\nschedule=0 1 * * *\n[other]\nschedule=10 1 * * *\n"
      "[verify]\ncommand=verify\nafter=backup,other\n[off]\nenabled=no\nschedule=* * * * *\n");
  durations_ = {{"backup", 3600}, {"other", 1800}, {"verify", 60}};
  // backup takes an hour, so other is 50 minutes late, and verify needs both.
  EXPECT_EQ(lines(forecast(24)),
            (Lines{"backup 01:00 0s", "other 02:00 50m 00s", "verify 02:30 0s"}));
}

TEST_F(ForecastTest, ToolsThatTakeNoTimeEndInTheirSecond) {
  start("[a]\nschedule=*/30 * * * *\n[b]\nafter=a\n");
  durations_ = {{"a", 0}, {"b", 0}};
  EXPECT_EQ(lines(forecast(1)), (Lines{"a 00:30 0s", "b 00:30 0s", "a 01:00 0s", "b 01:00 0s"}));
}

TEST_F(ForecastTest, AnUnknownDurationIsMarkedAsAGuess) {
  start("[a]\nonce=" + std::to_string(kMonday + 60) + "\n");
  EXPECT_EQ(lines(forecast(1)), Lines{"a 00:01 0s ~"});
}

TEST_F(ForecastTest, ARunByHandLeavesTheTimeThatIsSet) {
  start("[hand]\nschedule=0 1 * * *\n[due]\nschedule=0 1 * * *\n");
  durations_ = {{"hand", 7200}, {"due", 7200}};
  for (const char* name : {"hand", "due"}) {
    QueueRecord& running = *queue_find(plan_.queue, name);
    record_set_state(running, JobState::Running);
    running.started_at = kMonday - 600;
  }
  QueueRecord& due = *queue_find(plan_.queue, "due");
  due.next_run = kMonday - 600;
  // Both run now, one of them before its time: that time comes when the other has ended.
  EXPECT_EQ(lines(forecast(24)), (Lines{"hand 23:50 0s", "due 23:50 0s", "hand 01:50 50m 00s"}));
  // Overdue and run by hand while no daemon was there: the daemon runs it once more.
  EXPECT_EQ(lines(forecast(24, {&job("due")})),
            (Lines{"hand 23:50 0s", "due 23:50 0s", "hand 01:50 50m 00s", "due 03:50 4h 00m"}));
}

TEST_F(ForecastTest, ALostRunIsFailedAndDueAgain) {
  start("[a]\nschedule=0 1 * * *\n");
  record_set_state(record("a"), JobState::Running);
  queue_set_runner_pid(record("a"), kMaxRunnerPid);  // no such process
  record("a").started_at = record("a").next_run = kMonday - 3600;
  settle();
  EXPECT_EQ(lines(forecast(2)), (Lines{"a 00:00 1h 00m ~", "a 01:00 0s ~"}));
}

TEST_F(ForecastTest, DurationsAreTheMedianOfTheNewestSuccesses) {
  start("[a]\nschedule=0 1 * * *\n[b]\nschedule=0 1 * * *\n");
  const int seconds[] = {9000, 100, 300, 200, 500, 400};  // the oldest is too old to count
  for (int i = 0; i < 6; ++i) log("a", kMonday - (6 - i) * kDay, seconds[i]);
  log("a", kMonday - kHour, 7, 75);
  log("a", kMonday - kHour / 2, 7000, 1);
  dir_.write("logs/b/20261206T000000Z.log",
             "job: b\n\n--- end ---\nfinish_unix: -9223372036854775808\nexit_code: 0\n");
  EXPECT_EQ(usual_durations(plan_), (Durations{{"a", 300}}));
}

TEST(LocalClock, AgreesWithTheSlowWayAroundChanges) {
  for (const char* zone : {"Europe/Berlin", "Australia/Lord_Howe", "UTC", "America/St_Johns"}) {
    const ScopedTimeZone scope(zone);
    LocalClock clock;
    for (std::int64_t at = 1792800000; at < 1793500000; at += 1711) {
      ASSERT_EQ(clock.text(at), clock_text(at)) << zone << " " << at;
    }
  }
  const ScopedTimeZone zone("Europe/Berlin");
  EXPECT_EQ(clock_text(1793147400), "2026-10-28 01:30:00");
  EXPECT_EQ(clock_text(1792888200), "2026-10-25 02:30:00 CEST");  // and an hour later once more
  EXPECT_EQ(clock_text(1792888200 + 3600), "2026-10-25 02:30:00 CET");
}

TEST(Printable, LeavesNothingThatATerminalObeysOrMarkupRefuses) {
  EXPECT_EQ(printable("job \u20ac\U0001f600\x1b[2J\x7f"), "job \u20ac\U0001f600\\x1b[2J\\x7f");
  EXPECT_EQ(printable("\xc2\x9b\xe2\x82\uFFFF"), "\\xc2\\x9b\\xe2\\x82\\xef\\xbf\\xbf");
}

TEST_F(ForecastTest, ThePictureIsWellFormedWithItsRowsInChains) {
  start(
      "[<a&b>\x1b\xff\xc3\xa9]\nschedule=0 1 * * *\n[z]\nschedule=* * * * *\n"
      "[below]\nafter=<a&b>\x1b\xff\xc3\xa9\n");
  durations_ = {{"z", 5}};
  Picture picture;
  picture.from = picture.now = kMonday;
  picture.to = kMonday + kDay;
  add_forecast(picture, forecast(24));
  const std::string svg = picture_svg(plan_.config, picture);
  EXPECT_TRUE(contains(svg, ">&lt;a&amp;b&gt;\\x1b\\xff\xc3\xa9</text>")) << svg;
  EXPECT_FALSE(contains(svg, "<a&b>"));
  EXPECT_TRUE(contains(svg, "viewBox=\"0 0 "));
  EXPECT_TRUE(contains(svg, "fill:url(#orv-time)"));  // a guess
  EXPECT_LT(svg.find(">below</text>"), svg.find(">z</text>"));
  EXPECT_TRUE(contains(svg, " runs, 2026-12-07 "));  // bars that touch are one
  EXPECT_LT(svg.size(), 120000U);
}

class WhyTest : public ForecastTest {
 protected:
  std::string why(const char* name) {
    settle();
    DaemonProcess daemon;
    daemon.running = true;
    std::string text;
    for (const std::string& reason : reasons_not_now(plan_, job(name), daemon)) {
      text += reason + "\n";
    }
    return text;
  }
};

TEST_F(WhyTest, NamesEachThingThatBlocks) {
  start(
      "[first]\nschedule=0 1 * * *\n[second]\nafter=first\n[third]\nafter=first\n"
      "after-mode=finished\n[off]\nenabled=no\n");
  EXPECT_EQ(why("off"), "it is disabled (enabled=no)\n");
  EXPECT_EQ(why("first"), "its time is 2026-12-07 01:00:00, in 1h 00m\n");
  EXPECT_TRUE(contains(why("second"), "waits for job 'first'"));

  QueueRecord& first = record("first");
  record_set_state(first, JobState::Failed);
  first.started_at = first.finished_at = kMonday - 10;
  EXPECT_TRUE(contains(why("second"), "failed"));
  EXPECT_EQ(why("third"), "");  // it starts at the next check

  record("third").after_stamp = kMonday - 10;
  EXPECT_TRUE(contains(why("third"), "has already run for its dependencies' last finish"));
  first.next_run = kNever;
  EXPECT_TRUE(contains(why("first"), "never runs"));

  first.next_run = kMonday;
  record("third").after_stamp = 0;
  EXPECT_EQ(why("third"),
            "it is due, but job 'first' is due too and stands before it in the configuration\n");
  // A run file whose runner is gone; this very process stands for the tool that goes on.
  std::filesystem::create_symlink(boot_name() + "/1.1/first//log",
                                  plan_.queue_path + ".run.1." + std::to_string(::getpid()) + ".0");
  EXPECT_TRUE(contains(why("third"), "a run of job 'first' whose scheduler is gone"));
  DaemonProcess none;
  none.running = false;
  EXPECT_TRUE(contains(reasons_not_now(plan_, job("first"), none).back(), "no daemon is running"));
}

std::string kinds_of(const std::vector<Finding>& findings) {
  std::string kinds;
  for (const Finding& finding : findings) kinds += std::string(finding.kind) + " ";
  return kinds;
}

TEST_F(ForecastTest, CheckFindsWhatIsLegalButSurprising) {
  const ScopedTimeZone zone("Europe/Berlin");
  // clang-format off
  const struct { const char* kind; const char* config; Durations durations; } cases[] = {
      {"", "[a]\nschedule=0 4 * * *\n[b]\nafter=a\n", {{"a", 60}}},
      {"never-fires", "[a]\nschedule=0 0 30 2 *\n", {}},
      {"skipped-time", "[a]\nschedule=30 2 * * *\n", {}},
      {"", "[a]\nschedule=30 5 * * *\n", {}},
      {"", "[a]\nschedule=0 * * * *\n", {}},
      {"stands-still", "[a]\nschedule=*/15 * * * *\n", {}},
      {"longer-than-interval", "[a]\nschedule=0 4,5 * * *\n", {{"a", 7200}}},
      {"once-in-gap", "[a]\nonce=2027-03-28T02:30\n", {}},
      {"can-never-run", "[a]\nafter=off\n[off]\nenabled=no\n", {}},
      {"can-never-run", "[a]\nafter=b\n[b]\nafter=off\n[off]\nenabled=no\n", {}},
      {"runs-several-times", "[a]\nschedule=0 4 * * *\n[b]\nschedule=0 8 * * *\n[c]\nafter=a,b\n", {}},
      {"overbooked", "[a]\nschedule=0 4 * * *\n[b]\nafter=a\n", {{"a", 50000}, {"b", 50000}}},
      {"tool-missing", "[a]\ncommand=verify\nschedule=0 4 * * *\n", {}},
      {"shell-characters", "[a]\nschedule=0 4 * * *\nargs=--out x > /dev/null\n", {}},
      {"port-in-host", "[mail]\nsmtp-host=mail:25\nfrom=a@b\nto=a@b\n[a]\nschedule=0 4 * * *\n", {}},
  };
  // clang-format on
  dir_.script("orv_agent", "exit 0");
  for (const auto& c : cases) {
    SCOPED_TRACE(c.config);
    config_release(plan_.config);
    plan_.seen = {};
    start(c.config);
    const std::string kinds = kinds_of(check_plan(plan_, c.durations, dir_.path()));
    EXPECT_TRUE(*c.kind == '\0' ? kinds.empty() : contains(kinds, c.kind)) << kinds;
  }
}

TEST_F(ForecastTest, CheckReadsQueueLogsAndModes) {
  start("[stuck]\nschedule=0 5 * * *\n[past]\nonce=2020-01-01 10:00\n[cut]\nschedule=0 6 * * *\n");
  record("stuck").next_run = kNever;
  settle();
  plan_.config.mail.smtp_password_set = true;
  plan_.config.mail.smtp_password_kind = SecretKind::File;
  dir_.write("cfg",
             "[mail]\n smtp-password = 'file:" + dir_.write("secret", "x", 0644) + "' # or so\n");
  std::filesystem::permissions(dir_.file("cfg"), std::filesystem::perms(0666));
  dir_.write("logs/cut/20261206T060000Z.log",
             "job: cut\n\n--- end ---\nfinish_unix: 1796541000\nexit_code: -1\ntimed_out: 1\n");
  const std::string kinds = kinds_of(check_plan(plan_, {}, "/bin"));
  for (const char* kind : {"stuck-at-never", "once-overdue", "cut-by-limit", "password-readable",
                           "configuration-writable"}) {
    EXPECT_TRUE(contains(kinds, kind)) << kinds;
  }
}

}  // namespace
}  // namespace orv
