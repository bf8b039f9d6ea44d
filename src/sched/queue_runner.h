// Whether the process that a RUNNING record names is still there.
#ifndef ORV_SCHED_QUEUE_RUNNER_H_
#define ORV_SCHED_QUEUE_RUNNER_H_

#include "common/status.h"
#include "sched/queue_state.h"

namespace orv {

// Whether another process, alive and called orv_sched, runs this record's job. The caller's own pid
// does not count.
[[nodiscard]] bool queue_runner_alive(const QueueRecord& record);
// The first such record, or null.
[[nodiscard]] const QueueRecord* queue_find_live_runner(const QueueState& state);

// Marks every RUNNING record FAILED whose runner is gone (the caller's own pid counts as gone),
// logging each, and saves when it changed any.
[[nodiscard]] ErrorCode queue_sweep_stale_runners(QueueState& state);
// The same in memory only and without a word, for readers. Here too the caller runs nothing.
void queue_view_without_stale_runners(QueueState& state);

}  // namespace orv

#endif  // ORV_SCHED_QUEUE_RUNNER_H_
