// The records against the configuration: which jobs there are, when they run next, which are due.
// All functions work in memory; those that say so also save. Times are Unix seconds.
#ifndef ORV_SCHED_QUEUE_SCHEDULE_H_
#define ORV_SCHED_QUEUE_SCHEDULE_H_

#include <cstdint>

#include "common/status.h"
#include "config/config.h"
#include "sched/queue_state.h"

namespace orv {

// Whether the job's own settings name a time to run at; without one it waits for other jobs only.
[[nodiscard]] inline bool has_time(const Job& job) { return job.has_schedule || job.has_once; }
// Whether such a time is still to come, or comes again. A schedule that matches no date counts.
[[nodiscard]] inline bool has_time_ahead(const Job& job, std::int64_t now) {
  return job.enabled && (job.has_schedule || (job.has_once && job.once > now));
}
// Whether the job ran, found its tool busy, and waits for its retry at next_run.
[[nodiscard]] bool waits_for_retry(const QueueRecord& record);
// Whether the record's next_run keeps the job from starting now. That of a job without a time to
// run at does so for a retry only, and not when the clock was put back since the retry was set.
[[nodiscard]] bool held_by_time(const Job& job, const QueueRecord& record, std::int64_t now);
// Whether a job with this record lets those go on that wait for it in this mode.
[[nodiscard]] bool dependency_met(const QueueRecord& record, AfterMode mode);

// Brings the records in line with the configured jobs: new jobs get a record, removed ones lose
// theirs, disabling and enabling is carried over, and a job without a next run that was first run
// by hand, or edited while it ran, gets its first one. True when anything changed. `quiet` logs
// nothing.
[[nodiscard]] bool queue_reconcile(QueueState& state, const Config& config, std::int64_t now,
                                   bool quiet);
// Reconciles, logging, and saves when anything changed.
[[nodiscard]] ErrorCode queue_sync_with_config(QueueState& state, const Config& config,
                                               std::int64_t now);
// Lets jobs that only wait for others no longer wait for a retry that is further ahead than one is
// ever set: such a time is that of a schedule that was taken away, or of a clock that was ahead,
// and a run by hand that found its tool busy has made it look like a retry. Saves when anything
// changed.
[[nodiscard]] ErrorCode queue_drop_far_retries(QueueState& state, const Config& config,
                                               std::int64_t now, std::int64_t busy_retry_s);
// Reconciles quietly and refreshes schedules, and never saves: for readers.
void queue_view_with_config(QueueState& state, const Config& config, std::int64_t now);

// Recomputes the next run of every enabled job whose schedule settings were edited (a running job
// and one that waits for its retry keep theirs). True when anything changed.
[[nodiscard]] bool queue_refresh_schedules(QueueState& state, const Config& config,
                                           std::int64_t now);
[[nodiscard]] ErrorCode queue_refresh_schedules_and_save(QueueState& state, const Config& config,
                                                         std::int64_t now);

// The next match of the job's schedule after `now`, else its once time, else kNever.
[[nodiscard]] std::int64_t first_next_run(const Job& job, std::int64_t now);
// FNV-1a over the job's schedule settings; never 0.
[[nodiscard]] std::uint32_t schedule_fingerprint(const Job& job);

// Whether the job is to be started now. When it is, `dependency_finish` takes the newest finish
// among the jobs it waited for (0 without an 'after' list), to be stored in after_stamp after the
// run.
[[nodiscard]] bool queue_job_due(const QueueState& state, const Job& job, std::int64_t now,
                                 std::int64_t& dependency_finish);

}  // namespace orv

#endif  // ORV_SCHED_QUEUE_SCHEDULE_H_
