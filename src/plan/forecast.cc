#include "plan/forecast.h"

#include <algorithm>
#include <utility>

#include "sched/queue_schedule.h"

namespace orv {
namespace {

struct Simulation {
  const Config& config;
  QueueState queue;
  const Durations& durations;
  std::int64_t now;
  Forecast out;
};

std::int64_t duration_of(const Simulation& sim, const Job& job, bool& guessed) {
  const auto known = sim.durations.find(job.name.view());
  guessed = known == sim.durations.end();
  return guessed ? kGuessedDuration : known->second;
}

// Ends the run as the daemon does, as if the tool had exited 0.
void finish_run(Simulation& sim, const Job& job, std::int64_t start, std::int64_t end,
                std::int64_t stamp) {
  QueueRecord* record = queue_find(sim.queue, job.name.view());
  record_set_state(*record, JobState::Done);
  queue_set_runner_pid(*record, 0);
  record->started_at = start;
  record->finished_at = end;
  // A run by hand ahead of the time that is set does not stand in for the one at that time.
  if (record->next_run <= start) {
    if (job.has_schedule) {
      record->next_run = first_next_run(job, end);
    } else if (job.has_once) {
      record->next_run = kNever;
    }
  }
  if (!job.after.empty()) record->after_stamp = stamp;
}

// What runs at this moment goes on until its usual duration is over, or ends now when it is
// overdue.
void finish_running_job(Simulation& sim) {
  for (const Job& job : sim.config.jobs) {
    const QueueRecord* record = queue_find(sim.queue, job.name.view());
    if (record == nullptr || record_state(*record) != JobState::Running) continue;
    PlannedRun run;
    run.job = &job;
    run.reason = StartReason::Running;
    run.start = std::clamp(std::int64_t{record->started_at}, std::int64_t{0}, sim.now);
    run.end = std::max(sim.now, run.start + duration_of(sim, job, run.guessed));
    sim.out.runs.push_back(run);
    // Which completions this run answers is known to the daemon alone; take it that it answers all.
    std::int64_t stamp = record->after_stamp;
    for (const JobName& name : job.after) {
      const QueueRecord* other = queue_find(sim.queue, name.view());
      if (other != nullptr) stamp = std::max(stamp, std::int64_t{other->finished_at});
    }
    finish_run(sim, job, run.start, run.end, stamp);
    sim.now = run.end;
  }
}

const Job* first_due_job(const Simulation& sim, std::int64_t& stamp) {
  for (const Job& job : sim.config.jobs) {
    if (queue_job_due(sim.queue, job, sim.now, stamp)) return &job;
  }
  return nullptr;
}

void run_job_at_once(Simulation& sim, const Job& job, std::int64_t stamp) {
  const std::int64_t scheduled = queue_find(sim.queue, job.name.view())->next_run;
  PlannedRun run;
  run.job = &job;
  run.start = sim.now;
  // A run takes at least a second, or a job that took none would be due again in the same minute.
  run.end = sim.now + std::max(std::int64_t{1}, duration_of(sim, job, run.guessed));
  run.reason = !job.after.empty() ? StartReason::After
               : job.has_schedule ? StartReason::Schedule
                                  : StartReason::Once;
  if ((job.has_schedule || job.has_once) && scheduled > 0 && scheduled != kNever) {
    run.late_s = sim.now - scheduled;
  }
  sim.out.runs.push_back(run);
  finish_run(sim, job, run.start, run.end, stamp);
  sim.now = run.end;
}

// The next moment at which a time makes a job due; what depends on others alone waits for a run.
std::int64_t next_event(const Simulation& sim) {
  std::int64_t next = kNever;
  for (const Job& job : sim.config.jobs) {
    const QueueRecord* record = queue_find(sim.queue, job.name.view());
    if (record != nullptr && job.enabled && record->next_run > sim.now) {
      next = std::min(next, std::int64_t{record->next_run});
    }
  }
  return next;
}

}  // namespace

const char* start_reason_name(StartReason reason) {
  switch (reason) {
    case StartReason::Running: return "running";
    case StartReason::Schedule: return "schedule";
    case StartReason::Once: return "once";
    case StartReason::After: return "after";
  }
  return "?";
}

Forecast make_forecast(const Config& config, QueueState queue, const Durations& durations,
                       std::int64_t now, std::int64_t horizon) {
  Simulation sim{config, std::move(queue), durations, now, {}};
  finish_running_job(sim);
  while (sim.now <= horizon) {
    std::int64_t stamp = 0;
    if (const Job* job = first_due_job(sim, stamp)) {
      if (sim.out.runs.size() == kMaxForecastRuns) {
        sim.out.cut = true;
        break;
      }
      run_job_at_once(sim, *job, stamp);
      continue;
    }
    sim.now = next_event(sim);
  }
  return std::move(sim.out);
}

}  // namespace orv
