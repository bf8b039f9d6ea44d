// Runs whose scheduler was killed while their tool ran. The record is marked FAILED, but the tool
// lives on: nothing else may be started beside it, least of all the same job once more.
#ifndef ORV_SCHED_LOST_RUN_H_
#define ORV_SCHED_LOST_RUN_H_

#include <cstdint>
#include <string>

#include "config/config.h"
#include "sched/queue_state.h"

namespace orv {

// The first record whose last run was never concluded while its tool, or something that the tool
// has started, still writes to the job log; null when there is none. Such a run counts for as long
// as a scheduler would have let it run: the job's time limit, else `timeout_s`, and the grace
// behind it.
[[nodiscard]] const QueueRecord* find_lost_run(const QueueState& queue, const Config& config,
                                               const std::string& job_log_dir,
                                               std::uint32_t timeout_s, std::int64_t now);

}  // namespace orv

#endif  // ORV_SCHED_LOST_RUN_H_
