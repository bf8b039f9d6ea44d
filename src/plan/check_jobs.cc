// Findings about one job's own settings and runs.
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cstdio>

#include "plan/check.h"
#include "plan/clock_changes.h"
#include "plan/describe.h"
#include "plan/local_clock.h"
#include "plan/nominal.h"
#include "plan/why_not.h"
#include "sched/job_run.h"

namespace orv {
namespace {

constexpr std::int64_t kHour = 3600;
constexpr std::int64_t kTwoYears = std::int64_t{2} * 366 * 86400;
constexpr std::size_t kMatchesCompared = 50;  // for the shortest time between two
constexpr std::size_t kLogsRead = 10;         // in which runs cut by the time limit are looked for

// The findings of one job, and what the checks of all jobs share.
struct JobCheck {
  const Plan& plan;
  const Durations& durations;
  const std::vector<ClockChange>& changes;
  const Job& job;
  std::vector<Finding>& out;

  void report(const char* kind, std::string text) const {
    out.push_back({kind, std::string(job.name.view()), std::move(text)});
  }
};

std::int64_t shortest_interval(const CronSpec& schedule, std::int64_t now) {
  const std::vector<std::int64_t> times = next_matches(schedule, now, kMatchesCompared);
  std::int64_t shortest = kNever;
  for (std::size_t i = 1; i < times.size(); ++i) {
    shortest = std::min(shortest, times[i] - times[i - 1]);
  }
  return shortest;
}

void check_skipped(const JobCheck& check, const ClockChange& change) {
  // A job that runs soon after the change anyway loses nothing worth a line.
  const std::int64_t after = cron_next_run(check.job.schedule, change.at, true);
  if (after > 0 && after - change.at <= kHour) return;
  for (const std::string& time : skipped_times(check.job.schedule, change)) {
    check.report("skipped-time",
                 "the run of " + time + " is skipped, for the clock goes forward then");
  }
}

// When the clock goes back, the hour that comes twice counts once: what runs several times an hour
// stands still in its second pass.
bool check_standstill(const JobCheck& check, const ClockChange& change, std::int64_t interval) {
  if (interval >= kHour) return false;
  const std::int64_t last = cron_next_run(check.job.schedule, change.at - 2 * interval, false);
  std::int64_t before = last;
  // The last match before the change, and how far away the one after it is.
  while (before > 0 && before < change.at) {
    const std::int64_t next = cron_next_run(check.job.schedule, before, false);
    if (next < 1) return false;
    if (next >= change.at) {
      if (next - before < kHour) return false;
      check.report("stands-still", "it stands still from " + clock_text(before) + " to " +
                                       clock_text(next) + ", " + duration_text(next - before) +
                                       ", for the clock goes back then");
      return true;
    }
    before = next;
  }
  return false;
}

void check_schedule(const JobCheck& check) {
  const Job& job = check.job;
  if (cron_next_run(job.schedule, check.plan.now, false) < 1) {
    check.report("never-fires",
                 "the schedule never fires (it names no date of the next eight years)");
    return;
  }
  // "0 4,5 * * *" has an hour between two runs, whatever its average is.
  const std::int64_t interval = shortest_interval(job.schedule, check.plan.now);
  bool stands_still = false;
  for (const ClockChange& change : check.changes) {
    if (change.forward()) {
      check_skipped(check, change);
    } else if (!stands_still) {  // the first one says it all
      stands_still = check_standstill(check, change, interval);
    }
  }
  const auto duration = check.durations.find(job.name.view());
  if (duration != check.durations.end() && duration->second > interval) {
    check.report("longer-than-interval", "it usually takes " + duration_text(duration->second) +
                                             ", longer than the " + duration_text(interval) +
                                             " between two runs");
  }
}

// The date and time written differ from what they were taken for: that hour does not exist.
bool once_in_gap(const Job& job) {
  std::string text(job.once_text.view());
  std::replace(text.begin(), text.end(), 'T', ' ');
  std::replace(text.begin(), text.end(), 't', ' ');
  int year = 0;
  int month = 0;
  int day = 0;
  int hour = 0;
  int minute = 0;
  if (std::sscanf(text.c_str(), "%d-%d-%d %d:%d", &year, &month, &day, &hour, &minute) != 5) {
    return false;  // Unix seconds
  }
  // mktime(3) has moved a time that does not exist; what it shows now is another.
  const time_t seconds = job.once;
  struct tm at {};
  ::localtime_r(&seconds, &at);
  return minute < 60 && hour < 24 && (at.tm_hour != hour || at.tm_min != minute);
}

void check_once(const JobCheck& check, const QueueRecord* record) {
  const Job& job = check.job;
  if (once_in_gap(job)) {
    check.report("once-in-gap",
                 "its once time, " + printable(job.once_text.view()) +
                     ", does not exist, for the clock goes forward then: it runs at " +
                     clock_text(job.once));
  }
  if (record != nullptr && job.once < check.plan.now && record->next_run == job.once &&
      record->started_at == 0) {
    check.report("once-overdue", "its once time, " + clock_text(job.once) +
                                     ", is past and it has not run: it starts as soon as it may");
  }
}

void check_time_limit(const JobCheck& check) {
  JobRuns runs = runs_of(check.plan, check.job);
  for (std::size_t i = 0; i < std::min(runs.size(), kLogsRead); ++i) {
    const PastRun* const run = runs.run(i);
    if (run == nullptr || run->outcome != PastOutcome::TimedOut) continue;
    check.report("cut-by-limit",
                 "its run of " + clock_text(run->start) + " was cut by the time limit (now " +
                     duration_text(time_limit(check.job, check.plan.config.sched.job_timeout_s)) +
                     ")");
    return;
  }
}

// No shell reads the arguments: what only a shell understands reaches the tool as it stands.
void check_arguments(const JobCheck& check) {
  constexpr std::array<std::string_view, 8> kWords = {"|", "||", "&", "&&", ";", ">", ">>", "<"};
  constexpr std::array<std::string_view, 6> kPieces = {"$(", "${", "`", "2>", "*", "|"};
  // One argument is enough to make the point.
  for (const std::string& arg : check.job.args) {
    const auto inside = [&](std::string_view piece) { return arg.find(piece) != arg.npos; };
    const bool quoted = arg.size() > 1 && arg.front() == '\'';
    const bool variable = arg.size() > 1 && arg[0] == '$';
    if (!quoted && !variable && !arg.starts_with("~/") &&
        std::find(kWords.begin(), kWords.end(), arg) == kWords.end() &&
        std::none_of(kPieces.begin(), kPieces.end(), inside)) {
      continue;
    }
    check.report("shell-characters", "its argument '" + printable(arg) +
                                         "' reaches the tool as it stands, for no shell reads it");
    return;
  }
}

// Whether the first of the directories in `path` that has the program lets it be started.
bool tool_found(std::string_view tool, std::string_view path) {
  while (true) {
    const std::size_t colon = path.find(':');
    const std::string_view directory = path.substr(0, colon);
    const std::string file =
        std::string(directory.empty() ? "." : directory) + "/" + std::string(tool);
    if (::access(file.c_str(), X_OK) == 0) return true;
    if (colon == path.npos) return false;
    path.remove_prefix(colon + 1);
  }
}

void check_tool(const JobCheck& check, std::string_view path) {
  for (const JobCommandRow& row : job_commands()) {
    if (row.command != check.job.command || tool_found(row.tool, path)) continue;
    check.report("tool-missing", std::string("its tool ") + row.tool + " is not in the PATH");
  }
}

}  // namespace

std::vector<Finding> check_jobs(const Plan& plan, const Durations& durations,
                                std::string_view path) {
  // Found once for all jobs: each change is a search through two years.
  const std::vector<ClockChange> changes = clock_changes(plan.now, plan.now + kTwoYears);
  std::vector<Finding> out;
  for (const Job& job : plan.config.jobs) {
    if (!job.enabled) continue;
    const JobCheck check{plan, durations, changes, job, out};
    const QueueRecord* const record = queue_find(plan.queue, job.name.view());
    if (job.has_schedule) check_schedule(check);
    if (job.has_once) check_once(check, record);
    if (record != nullptr && stuck_at_never(job, *record, plan.now)) {
      check.report("stuck-at-never",
                   "its record in the queue says it never runs: disable and enable it, or edit its "
                   "schedule");
    }
    check_time_limit(check);
    check_arguments(check);
    check_tool(check, path);
  }
  return out;
}

}  // namespace orv
