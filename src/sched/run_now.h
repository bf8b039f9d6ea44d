// One job run on demand, now, beside whatever the daemon does: it changes neither the next run nor
// which dependency finishes count as handled.
#ifndef ORV_SCHED_RUN_NOW_H_
#define ORV_SCHED_RUN_NOW_H_

#include <string_view>

#include "common/status.h"
#include "config/config.h"
#include "sched/job_run.h"
#include "sched/queue_state.h"

namespace orv {

// Runs the job of that name, waits for its end, saves the queue and sends the result mail. The
// job's own time limit goes before that of `settings`. While another scheduler process runs a job,
// or a tool still runs whose scheduler was killed, it is refused, unless `force`. SIGINT, SIGTERM
// and SIGHUP end the tool, and with it the run as failed. `queue` was loaded from its file; it is
// read again under the lock. Ok when the run ended done; IoError when it ended failed or busy, or
// the queue could not be locked; NotFound for an unknown job; Unavailable when refused. All but the
// first are logged.
[[nodiscard]] ErrorCode run_now(const Config& config, QueueState& queue, std::string_view job_name,
                                const JobRunSettings& settings, bool force);

}  // namespace orv

#endif  // ORV_SCHED_RUN_NOW_H_
