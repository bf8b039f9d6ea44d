#include "plan/history.h"

#include "plan/describe.h"
#include "plan/lateness.h"
#include "plan/plan_fixture.h"
#include "plan/report.h"

namespace orv {
namespace {

using test::contains;
using test::kDay;
using test::kHour;
using test::kMonday;

class HistoryTest : public test::PlanTest {
 protected:
  std::vector<std::string> lines(std::int64_t from) {
    std::vector<std::string> out;
    for (const HistoryRun& row : collect_history(plan_, from, nullptr).runs) {
      out.push_back(std::string(row.job->name.view()) + " " + past_outcome_name(row.run.outcome) +
                    " " + (row.run.late_s ? duration_text(*row.run.late_s) : "-"));
    }
    return out;
  }
  using Lines = std::vector<std::string>;
};

TEST_F(HistoryTest, LatenessIsAgainstWhatLetTheRunStart) {
  start("[a]\nschedule=0 2 * * *\n[b]\nafter=a\n");
  const std::int64_t night = kMonday - 3 * kDay + 2 * kHour;
  log("a", night, 600);                        // on time, as the oldest one known
  log("b", night + 630, 60);                   // 30 s after a's end
  log("a", night + 8 * kHour, 600);            // by hand
  log("b", night + 8 * kHour + 600, 60);       // for that run
  log("a", night + kDay + 300, 60, 75);        // five minutes late, and busy
  log("a", night + kDay + 900, 600);           // its retry
  log("b", night + kDay + 5 * kHour, 60);      // long after a's end
  log("b", night + kDay + 6 * kHour, 60);      // by hand: a has not ended again
  log("a", night + 2 * kDay + 20 * kHour, 9);  // the daemon was down
  EXPECT_EQ(lines(night - 1),
            (Lines{"a done 0s", "b done 30s", "a done -", "b done 0s", "a busy 5m 00s",
                   "a done 15m 00s", "b done 4h 35m", "b done -", "a done 20h 00m"}));
  // The run before the time asked for tells how late the first one is.
  EXPECT_EQ(lines(night + 2 * kDay), Lines{"a done 20h 00m"});
}

TEST_F(HistoryTest, BothClockChangesKeepLatenessRight) {
  const test::ScopedTimeZone zone("Europe/Berlin");
  start("[a]\nschedule=30 2 * * *\n");
  const auto late = [&](std::int64_t before_end, std::int64_t begin) {
    std::vector<PastRun> runs(2);
    runs[0].start = before_end - 600;
    runs[0].end = before_end;
    runs[1].start = begin;
    runs[0].outcome = runs[1].outcome = PastOutcome::Done;
    set_lateness(job("a"), {}, runs);
    return runs[1].late_s;
  };
  constexpr std::int64_t kAutumn = 1792888200;  // 2026-10-25 02:30 CEST, an hour later again in CET
  EXPECT_EQ(late(kAutumn - kDay, kAutumn), 0);
  EXPECT_EQ(late(kAutumn - kDay, kAutumn + kHour), kHour);
  constexpr std::int64_t kSpring = 1806197400;  // 2027-03-28 02:30 would be; the clock skips it
  EXPECT_EQ(late(kSpring - kDay + 60, kSpring), std::nullopt);
  EXPECT_EQ(late(kSpring - kDay + 60, 1806280200), 0);  // 2027-03-29 02:30
}

TEST_F(HistoryTest, TotalsLeaveBusyRunsOut) {
  start("[a]\nschedule=0 2 * * *\n[quiet]\nschedule=0 2 * * *\n");
  const int seconds[] = {100, 100, 100, 200, 200, 200, 200, 200};
  for (int i = 0; i < 8; ++i) log("a", kMonday - (12 - i) * kDay, seconds[i]);
  log("a", kMonday - 3 * kDay, 5, 75);
  log("a", kMonday - 2 * kDay, 5, 1);
  log("a", kMonday - kDay, -1);
  const History history = collect_history(plan_, kMonday - 30 * kDay, nullptr);
  ASSERT_EQ(history.jobs.size(), 1U);
  const JobTotals& a = history.jobs[0];
  EXPECT_EQ(a.runs, 11U);
  EXPECT_EQ(a.failures, 2U);
  EXPECT_EQ(a.success_permille(), 800);
  EXPECT_EQ(a.median_s, 200);
  EXPECT_EQ(a.longest_s, 200);
  EXPECT_EQ(a.trend_percent, 100);
  EXPECT_TRUE(contains(history_text(plan_, history), "80 %"));
  EXPECT_TRUE(contains(history_json(plan_, history), "\"success_rate\":0.800"));
  EXPECT_TRUE(contains(history_text(plan_, collect_history(plan_, kMonday, nullptr)), "no run"));
}

TEST_F(HistoryTest, TheReportQuotesTheEndOfTheLog) {
  start("[a]\nschedule=0 2 * * *\n[never]\nschedule=0 3 * * *\n");
  std::string output;
  for (int i = 0; i < 20; ++i) output += "line " + std::to_string(i) + "\n";
  output += "<b>" + std::string(299, 'x') + "\u00e9\nlast & least";
  log("a", kMonday - 5 * kDay, 60);
  log("a", kMonday - 4 * kDay, 60, 3, output);  // has failed ever since
  DaemonProcess daemon;
  daemon.running = true;
  const Report report = make_report(plan_, daemon, 1);
  ASSERT_EQ(report.failures.size(), 1U);
  ASSERT_EQ(report.failures[0].lines.size(), 10U);
  EXPECT_EQ(report.failures[0].lines[0], "line 12");
  EXPECT_EQ(report.failures[0].lines[8].size(), kLogLineBytes);
  EXPECT_EQ(report.failures[0].lines[9], "last & least");
  EXPECT_TRUE(contains(report_summary(report), "2 of 2 jobs need attention: 1 failed, 1 never run"))
      << report_summary(report);
  const std::string html = report_html(plan_, report);
  EXPECT_TRUE(contains(html, "last &amp; least"));
  EXPECT_FALSE(contains(html, "<b>"));
  EXPECT_TRUE(contains(html, "<svg "));
  EXPECT_TRUE(contains(report_text(report), "    | last & least\n"));
}

}  // namespace
}  // namespace orv
