#include "plan/findings.h"

#include <time.h>

#include <algorithm>
#include <array>

#include "common/times.h"
#include "plan/describe.h"

namespace orv {
namespace {

constexpr std::int64_t kTwoYears = std::int64_t{2} * 366 * 86400;
constexpr std::int64_t kHour = 3600;

std::string quoted(const JobName& name) { return "'" + std::string(name.view()) + "'"; }

// What each job of the 'after' list lacks; empty when all have ended as they should.
std::vector<std::string> missing_dependencies(const QueueState& queue, const Job& job) {
  std::vector<std::string> out;
  for (const JobName& name : job.after) {
    const QueueRecord* record = queue_find(queue, name.view());
    const JobState state = record == nullptr ? JobState::Pending : record_state(*record);
    const bool enough = state == JobState::Done ||
                        (state == JobState::Failed && job.after_mode == AfterMode::Finished);
    if (record != nullptr && enough) continue;
    std::string text = "it waits for job " + quoted(name) + ", which ";
    switch (state) {
      case JobState::Running: text += "is running"; break;
      case JobState::Failed: text += "failed (after-mode=success wants it to succeed)"; break;
      case JobState::Disabled: text += "is disabled"; break;
      default: text += "has not run yet, or waits for another try"; break;
    }
    out.push_back(text);
  }
  return out;
}

std::int64_t newest_finish(const QueueState& queue, const Job& job) {
  std::int64_t newest = 0;
  for (const JobName& name : job.after) {
    const QueueRecord* record = queue_find(queue, name.view());
    if (record != nullptr) newest = std::max(newest, std::int64_t{record->finished_at});
  }
  return newest;
}

bool has_time(const Job& job) { return job.has_schedule || job.has_once; }

// Whether the record says "never" although the job has a time to come. A once job that has run is no
// such case.
bool stuck_at_never(const Job& job, const QueueRecord& record, std::int64_t now) {
  if (record.next_run != kNever) return false;
  if (job.has_schedule) return cron_next_run(job.schedule, now, false) > 0;
  return job.has_once && job.once > now;
}

std::string wait_for_time(const QueueRecord& record, std::int64_t now) {
  const bool retry = record_state(record) == JobState::Pending && record.started_at > 0;
  return std::string(retry ? "its tool was busy; it is tried again at " : "its time is ") +
         local_time_cell(record.next_run) + ", in " + duration_text(record.next_run - now);
}


std::int64_t utc_offset(std::int64_t time) {
  const time_t seconds = time;
  struct tm local {};
  ::localtime_r(&seconds, &local);
  return local.tm_gmtoff;
}

// The first second in (low, high] whose offset from UTC is that of `high`.
std::int64_t change_between(std::int64_t low, std::int64_t high) {
  const std::int64_t after = utc_offset(high);
  while (high - low > 1) {
    const std::int64_t middle = low + (high - low) / 2;
    (utc_offset(middle) == after ? high : low) = middle;
  }
  return high;
}

void check_schedule(const Job& job, const std::vector<ClockGap>& gaps, const Durations& durations,
                    std::int64_t now, std::vector<std::string>& out) {
  const std::string lead = "[" + std::string(job.name.view()) + "]: ";
  const std::int64_t first = cron_next_run(job.schedule, now, false);
  if (first < 1) {
    out.push_back(lead + "the schedule never fires (it names no date of the next eight years)");
    return;
  }
  for (const ClockGap& gap : gaps) {
    // A job that runs soon after the change anyway loses nothing worth telling.
    const std::int64_t after_gap = cron_next_run(job.schedule, gap.at, true);
    if (after_gap > 0 && after_gap - gap.at <= kHour) continue;
    for (const std::string& time : skipped_times(job.schedule, gap)) {
      out.push_back(lead + "the run of " + time + " is skipped, for the clock goes forward then");
    }
  }
  const auto duration = durations.find(job.name.view());
  const std::int64_t second = cron_next_run(job.schedule, first, false);
  if (duration != durations.end() && second > 0 && duration->second > second - first) {
    out.push_back(lead + "its last run took " + duration_text(duration->second) +
                  ", longer than the " + duration_text(second - first) + " between two runs");
  }
}

}  // namespace

std::vector<std::string> blockers(const QueueState& queue, const Job& job, std::int64_t now) {
  if (!job.enabled) return {"it is disabled (enabled=no)"};
  const QueueRecord* record = queue_find(queue, job.name.view());
  if (record == nullptr) return {"it has no record in the queue"};
  std::vector<std::string> out;
  if (const QueueRecord* runner = queue_find_live_runner(queue)) {
    const std::string pid = std::to_string(queue_get_runner_pid(*runner));
    if (runner == record) return {"it is running now (pid " + pid + ")"};
    out.push_back("job '" + std::string(record_name(*runner)) + "' is running (pid " + pid +
                  "), and jobs run one at a time");
  }
  if (record_state(*record) == JobState::Running) {
    out.push_back("its record says RUNNING, but that process is gone: the daemon marks it FAILED");
  }
  if (stuck_at_never(job, *record, now)) {
    out.push_back("its record says it never runs: disable and enable it, or edit its schedule");
  } else if (has_time(job) && record->next_run == kNever) {
    out.push_back(job.has_once ? "its once time has been used" : "its schedule never fires");
  } else if (record->next_run > now && record->next_run != kNever) {
    out.push_back(wait_for_time(*record, now));
  }
  const std::vector<std::string> missing = missing_dependencies(queue, job);
  out.insert(out.end(), missing.begin(), missing.end());
  if (missing.empty() && !job.after.empty() && record->after_stamp >= newest_finish(queue, job)) {
    out.push_back("it has run for the last end of what it waits for, and waits for the next");
  }
  return out;
}

std::vector<ClockGap> clock_gaps(std::int64_t from, std::int64_t to) {
  std::vector<ClockGap> gaps;
  std::int64_t offset = utc_offset(from);
  for (std::int64_t at = from; at < to; at += kHour) {
    const std::int64_t next = utc_offset(at + kHour);
    if (next > offset) {
      const std::int64_t change = change_between(at, at + kHour);
      gaps.push_back({change, change + offset, change + next});
    }
    offset = next;
  }
  return gaps;
}

std::vector<std::string> skipped_times(const CronSpec& cron, const ClockGap& gap) {
  std::vector<std::string> out;
  for (std::int64_t civil = gap.begin; civil < gap.end; civil += 60) {
    const time_t seconds = civil;
    struct tm at {};
    ::gmtime_r(&seconds, &at);
    const auto day = static_cast<std::size_t>(at.tm_wday);
    const bool week = cron.day_of_week[day] != 0 || (day == 0 && cron.day_of_week[7] != 0);
    if (!week || cron.month[static_cast<std::size_t>(at.tm_mon) + 1] == 0 ||
        cron.day_of_month[static_cast<std::size_t>(at.tm_mday)] == 0 ||
        cron.hour[static_cast<std::size_t>(at.tm_hour)] == 0 ||
        cron.minute[static_cast<std::size_t>(at.tm_min)] == 0) {
      continue;
    }
    std::array<char, 32> text{};
    (void)::strftime(text.data(), text.size(), "%Y-%m-%d %H:%M", &at);
    out.emplace_back(text.data());
    // One finding an hour is enough of a job that runs every few minutes.
    civil += kHour - civil % kHour - 60;
  }
  return out;
}

std::vector<std::string> check_jobs(const Config& config, const QueueState& queue,
                                    const Durations& durations, std::int64_t now) {
  const std::vector<ClockGap> gaps = clock_gaps(now, now + kTwoYears);
  std::vector<std::string> out;
  for (const Job& job : config.jobs) {
    if (!job.enabled) continue;
    if (job.has_schedule) check_schedule(job, gaps, durations, now, out);
    const QueueRecord* record = queue_find(queue, job.name.view());
    if (record != nullptr && stuck_at_never(job, *record, now)) {
      out.push_back("[" + std::string(job.name.view()) +
                    "]: its record in the queue says it never runs: disable and enable it, or edit "
                    "its schedule");
    }
  }
  return out;
}

}  // namespace orv
