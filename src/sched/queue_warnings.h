// What an operator must be told of the queue when a configuration is taken up: times with which
// jobs silently would not run.
#ifndef ORV_SCHED_QUEUE_WARNINGS_H_
#define ORV_SCHED_QUEUE_WARNINGS_H_

#include <cstdint>

#include "config/config.h"
#include "sched/queue_state.h"

namespace orv {

// Logs at most one WARN per job, with the remedy: a job with a time to run at whose record says
// "never", and one whose record bears the marks of a clock that was wrong: a next run beyond the
// schedule's next match, or a run or a handled dependency that lies in the future. `now`: Unix
// seconds.
void queue_warn_of_times(const QueueState& queue, const Config& config, std::int64_t now);

}  // namespace orv

#endif  // ORV_SCHED_QUEUE_WARNINGS_H_
