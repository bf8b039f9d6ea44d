#include "plan/why_not.h"

#include <algorithm>
#include <cstring>

#include "plan/describe.h"
#include "sched/queue_schedule.h"

namespace orv {
namespace {

std::string quoted(std::string_view name) { return "'" + printable(name) + "'"; }

// What each job of the 'after' list lacks; empty when all have ended as they should.
std::vector<std::string> missing_dependencies(const QueueState& queue, const Job& job) {
  std::vector<std::string> out;
  for (const JobName& name : job.after) {
    const QueueRecord* record = queue_find(queue, name.view());
    // No record yet: the daemon has not seen the job, which then has not run either.
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

// The end that a run of the job would be for.
std::int64_t newest_finish(const QueueState& queue, const Job& job) {
  std::int64_t newest = 0;
  for (const JobName& name : job.after) {
    const QueueRecord* record = queue_find(queue, name.view());
    if (record != nullptr) newest = std::max(newest, std::int64_t{record->finished_at});
  }
  return newest;
}

// What the job's own time has against a start now; empty when nothing.
std::string blocked_by_time(const Job& job, const QueueRecord& record, std::int64_t now) {
  if (stuck_at_never(job, record, now)) {
    return "its record says it never runs: disable and enable it, or edit its schedule";
  }
  if (record.next_run == kNever) {
    if (!has_time(job)) return {};
    return job.has_once ? "its once time has passed and been used" : "its schedule never fires";
  }
  if (!held_by_time(job, record, now)) return {};
  return (waits_for_retry(record) ? "its tool was busy; it is tried again at " : "its time is ") +
         clock_text(record.next_run) + ", in " + duration_text(record.next_run - now);
}

// The jobs that are due as well and come before `job`; empty when there are none.
std::string due_before(const Plan& plan, const Job& job) {
  std::string first;
  std::size_t others = 0;
  for (const Job& other : plan.config.jobs) {
    if (&other == &job) break;
    std::int64_t stamp = 0;
    if (!queue_job_due(plan.queue, other, plan.now, stamp)) continue;
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

// What keeps any job from being started.
std::string blocked_by_others(const Obstacle& obstacle) {
  if (obstacle.unread != 0) {
    return "the run files beside the queue cannot be read: " +
           std::string(std::strerror(obstacle.unread)) + " - another job may be running";
  }
  const std::string pid = "(pid " + std::to_string(obstacle.pid) + ")";
  return obstacle.lost ? "the tool of a run of job " + quoted(obstacle.job) +
                             " whose scheduler is gone is still running " + pid +
                             ", and nothing starts beside it"
                       : "job " + quoted(obstacle.job) + " is running " + pid +
                             ", and jobs run one at a time";
}

std::vector<std::string> reasons_of_job(const Plan& plan, const Job& job) {
  if (!job.enabled) return {"it is disabled (enabled=no)"};
  const QueueRecord* record = queue_find(plan.queue, job.name.view());
  if (record == nullptr) return {"it has no record in the queue"};
  if (record_state(*record) == JobState::Running) {
    return {"it is running now (pid " + std::to_string(queue_get_runner_pid(*record)) + ")"};
  }
  std::vector<std::string> out;
  // From what holds up every job to what holds up this one.
  if (plan.obstacle) out.push_back(blocked_by_others(*plan.obstacle));
  if (std::string text = blocked_by_time(job, *record, plan.now); !text.empty()) {
    out.push_back(text);
  }
  // Each job that it waits for has a line of its own; only when none is missing can the end of the
  // newest have been handled.
  const std::vector<std::string> missing = missing_dependencies(plan.queue, job);
  out.insert(out.end(), missing.begin(), missing.end());
  if (missing.empty() && !job.after.empty() &&
      record->after_stamp >= newest_finish(plan.queue, job)) {
    out.emplace_back("it has already run for its dependencies' last finish and waits for the next");
  }
  // A job that is held back anyway is not kept by the order of the file.
  if (!out.empty()) return out;
  if (std::string text = due_before(plan, job); !text.empty()) out.push_back(text);
  return out;
}

}  // namespace

std::vector<std::string> reasons_not_now(const Plan& plan, const Job& job,
                                         const DaemonProcess& daemon) {
  std::vector<std::string> out = reasons_of_job(plan, job);
  if (!daemon.running.value_or(true)) {
    out.emplace_back(
        "no daemon is running for this configuration and queue (no process 'orv_sched daemon' "
        "that has them can be found)");
  }
  return out;
}

bool stuck_at_never(const Job& job, const QueueRecord& record, std::int64_t now) {
  if (record.next_run != kNever) return false;
  if (job.has_schedule) return cron_next_run(job.schedule, now, false) > 0;
  return job.has_once && job.once > now;
}

}  // namespace orv
