#include "plan/job_facts.h"

#include <algorithm>

#include "sched/job_run.h"
#include "sched/queue_schedule.h"

namespace orv {
namespace {

// Since when the scheduler could have started the job; none when it is not due.
std::optional<std::int64_t> due_since(const Plan& plan, const Job& job, const QueueRecord& record) {
  std::int64_t since = 0;  // the end of what it waits for, when it waits for others
  if (!queue_job_due(plan.queue, job, plan.now, since)) return std::nullopt;
  if (record.next_run != kNever) since = std::max(since, std::int64_t{record.next_run});
  return since > 0 ? std::optional(since) : std::nullopt;
}

// Goes through the runs from the newest, until nothing more is to be learned.
void take_runs(JobRuns& runs, JobFacts& facts) {
  constexpr std::size_t kMostRead = 5000;  // of a job whose logs are never removed
  std::vector<std::int64_t> usual;
  std::vector<std::int64_t> all;
  for (std::size_t i = 0; i < std::min(runs.size(), kMostRead); ++i) {
    if (facts.last_success && usual.size() == kUsualRuns && !facts.running_since) break;
    const PastRun* const run = runs.run(i);
    if (run == nullptr) continue;
    if (!facts.last_run) {
      facts.last_run = *run;
      facts.log_bytes = run->log_bytes;
    }
    if (run->outcome == PastOutcome::Running) {
      facts.running_since = run->start;
      continue;
    }
    if (!facts.last_finished) facts.last_finished = *run;
    if (run_failed(run->outcome) && !facts.last_success) {
      if (++facts.failures == 1) facts.last_failure = *run;
      facts.failing_since = run->start;
    }
    if (run->outcome != PastOutcome::Done) continue;
    if (!facts.last_success) facts.last_success = *run;
    if (const auto seconds = run->duration_s()) {
      all.push_back(*seconds);
      if (usual.size() < kUsualRuns) usual.push_back(*seconds);
    }
  }
  facts.usual_s = median(usual);
  if (facts.running_since) facts.median_s = median(all);
}

}  // namespace

JobFacts collect_facts(const Plan& plan, const Job& job, JobRuns& runs, LongestGaps& gaps) {
  JobFacts facts;
  facts.enabled = job.enabled;
  facts.once = job.has_once;
  facts.has_time_or_dependencies = has_time(job) || !job.after.empty();
  facts.longest_gap = gaps.of(job);
  facts.time_limit = time_limit(job, plan.config.sched.job_timeout_s);
  take_runs(runs, facts);
  facts.logs_known =
      std::none_of(runs.notes().begin(), runs.notes().end(),
                   [](const LogNote& note) { return note.fault == LogFault::Unreadable; });
  if (facts.last_run) facts.first_start = runs.start(runs.size() - 1);
  facts.queue_known = plan.queue_message.empty();
  // Without the queue the logs have said what they can; the times to come stay unknown.
  const QueueRecord* const record = queue_find(plan.queue, job.name.view());
  if (record == nullptr || !facts.queue_known) return facts;
  facts.due_since = due_since(plan, job, *record);
  facts.next_run = next_start(job, *record, plan.now, facts.running_since.has_value());
  facts.other_running = plan.obstacle && plan.obstacle->unread == 0 && !plan.obstacle->lost &&
                        plan.obstacle->job != job.name.view();
  return facts;
}

}  // namespace orv
