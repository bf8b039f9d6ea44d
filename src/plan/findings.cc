#include "plan/findings.h"

#include <fcntl.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cstddef>

#include "common/files.h"
#include "plan/describe.h"
#include "sched/obstacle.h"
#include "sched/queue_runner.h"
#include "sched/queue_schedule.h"

namespace orv {
namespace {

constexpr std::int64_t kTwoYears = std::int64_t{2} * 366 * 86400;
constexpr std::int64_t kHour = 3600;

std::string quoted(std::string_view name) { return "'" + printable(name) + "'"; }

// What each job of the 'after' list lacks; empty when all have ended as they should.
std::vector<std::string> missing_dependencies(const QueueState& queue, const Job& job) {
  std::vector<std::string> out;
  for (const JobName& name : job.after) {
    const QueueRecord* record = queue_find(queue, name.view());
    const JobState state = record == nullptr ? JobState::Pending : record_state(*record);
    if (record != nullptr && dependency_met(*record, job.after_mode)) continue;
    std::string text = "it waits for job " + quoted(name.view()) + ", which ";
    switch (state) {
      case JobState::Running: text += "is running"; break;
      case JobState::Failed: text += "failed (after-mode=success wants it to succeed)"; break;
      case JobState::Disabled: text += "is disabled"; break;
      default:
        text += record != nullptr && record->started_at > 0
                    ? "found its tool busy and waits for another try"
                    : "has not run yet";
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

// Whether the record says "never" although the job has a time to come. A once job that has run is
// no such case.
bool stuck_at_never(const Job& job, const QueueRecord& record, std::int64_t now) {
  if (record.next_run != kNever) return false;
  if (job.has_schedule) return cron_next_run(job.schedule, now, false) > 0;
  return job.has_once && job.once > now;
}

// What the job's own time has against a start now; empty when nothing.
std::string blocked_by_time(const Job& job, const QueueRecord& record, std::int64_t now) {
  if (stuck_at_never(job, record, now)) {
    return "its record says it never runs: disable and enable it, or edit its schedule";
  }
  if (record.next_run == kNever) {
    if (!has_time(job)) return {};
    return job.has_once ? "its once time has been used" : "its schedule never fires";
  }
  if (record.next_run <= now || (!has_time(job) && !waits_for_retry(record))) return {};
  return (waits_for_retry(record) ? "its tool was busy; it is tried again at " : "its time is ") +
         clock_text(record.next_run) + ", in " + duration_text(record.next_run - now);
}

// The jobs that are due as well and come before `job`; empty when there are none.
std::string due_before(const Config& config, const QueueState& queue, const Job& job,
                       std::int64_t now) {
  std::string first;
  std::size_t others = 0;
  for (const Job& other : config.jobs) {
    if (&other == &job) break;
    std::int64_t stamp = 0;
    if (!queue_job_due(queue, other, now, stamp)) continue;
    if (first.empty()) {
      first = quoted(other.name.view());
    } else {
      ++others;
    }
  }
  if (first.empty()) return {};
  return "it is due, but job " + first +
         (others == 0 ? "" : " and " + std::to_string(others) + " more") +
         " is due too and stands before it in the configuration";
}

bool process_is(const std::string& pid, std::string_view name, std::string_view word) {
  std::array<char, 4096> text{};
  std::size_t got = 0;
  const auto read = [&](const char* file) {
    const ScopedFd fd = open_file(("/proc/" + pid + file).c_str(), O_RDONLY);
    if (!fd.valid() || read_at(fd.get(), 0, text, got) != ErrorCode::Ok) got = 0;
    return std::string_view(text.data(), got);
  };
  if (read("/comm") != std::string(name) + "\n") return false;
  const std::string arguments = '\0' + std::string(read("/cmdline"));  // each ends with a NUL
  return arguments.find('\0' + std::string(word) + '\0') != std::string::npos;
}

// The shortest time between two of the next runs.
std::int64_t shortest_interval(const CronSpec& schedule, std::int64_t first) {
  constexpr int kRunsLookedAt = 50;
  std::int64_t shortest = kNever;
  for (int i = 0; i < kRunsLookedAt; ++i) {
    const std::int64_t next = cron_next_run(schedule, first, false);
    if (next < 1) break;
    shortest = std::min(shortest, next - first);
    first = next;
  }
  return shortest;
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

std::string lead_of(const Job& job) { return "[" + printable(job.name.view()) + "]: "; }

void check_schedule(const Job& job, const std::vector<ClockGap>& gaps, const Durations& durations,
                    std::int64_t now, std::vector<std::string>& out) {
  const std::string lead = lead_of(job);
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
      out.emplace_back(lead)
          .append("the run of ")
          .append(time)
          .append(" is skipped, for the clock goes forward then");
    }
  }
  const auto duration = durations.find(job.name.view());
  if (duration == durations.end()) return;
  const std::int64_t interval = shortest_interval(job.schedule, first);
  if (duration->second > interval) {
    out.push_back(lead + "its last run took " + duration_text(duration->second) +
                  ", longer than the " + duration_text(interval) + " between two runs");
  }
}

}  // namespace

bool daemon_seems_absent() {
  if (::access("/proc/1/comm", R_OK) != 0) return false;  // the processes of others are hidden
  const std::vector<std::string> names = directory_names("/proc");
  return std::none_of(names.begin(), names.end(), [](const std::string& name) {
    return name[0] >= '1' && name[0] <= '9' && process_is(name, "orv_sched", "daemon");
  });
}

std::vector<std::string> blockers(const Config& config, const QueueState& queue, const Job& job,
                                  std::int64_t now) {
  if (!job.enabled) return {"it is disabled (enabled=no)"};
  const QueueRecord* record = queue_find(queue, job.name.view());
  if (record == nullptr) return {"it has no record in the queue"};
  std::vector<std::string> out;
  if (record_state(*record) == JobState::Running) {
    return {"it is running now (pid " + std::to_string(queue_get_runner_pid(*record)) + ")"};
  }
  if (const std::optional<Obstacle> obstacle = find_obstacle(queue)) {
    const std::string pid = std::to_string(obstacle->pid);
    out.push_back(obstacle->lost ? "the tool of a run of job " + quoted(obstacle->job) +
                                       " whose scheduler is gone is still running (pid " + pid +
                                       "), and nothing starts beside it"
                                 : "job " + quoted(obstacle->job) + " is running (pid " + pid +
                                       "), and jobs run one at a time");
  }
  if (std::string text = blocked_by_time(job, *record, now); !text.empty()) out.push_back(text);
  const std::vector<std::string> missing = missing_dependencies(queue, job);
  out.insert(out.end(), missing.begin(), missing.end());
  if (missing.empty() && !job.after.empty() && record->after_stamp >= newest_finish(queue, job)) {
    out.push_back("it has run for the last end of what it waits for, and waits for the next");
  }
  if (!out.empty()) return out;
  if (std::string text = due_before(config, queue, job, now); !text.empty()) out.push_back(text);
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
      out.push_back(
          lead_of(job) +
          "its record in the queue says it never runs: disable and enable it, or edit its "
          "schedule");
    }
    if (record != nullptr && job.has_once && job.once < now && record->next_run == job.once &&
        record->started_at == 0) {
      out.push_back(lead_of(job) + "its once time, " + clock_text(job.once) +
                    ", is past and it has not run: it starts as soon as it may");
    }
  }
  return out;
}

}  // namespace orv
