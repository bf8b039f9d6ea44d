// The "job" of replies: a job's settings with what the queue knows of it.
#ifndef ORV_API_JOB_OBJECT_H_
#define ORV_API_JOB_OBJECT_H_

#include <cstdint>
#include <string_view>

#include "config/config.h"
#include "json/json_writer.h"
#include "sched/live_state.h"
#include "sched/queue_state.h"

namespace orv {

// Reads the queue without its lock and brings it in line with `config` in memory only. No records
// when it cannot be read.
[[nodiscard]] QueueState load_queue_view(const LiveState& live, const Config& config,
                                         std::int64_t now);

// Writes the job as one JSON object: every setting, null where it is not set, and "state", null
// when the queue has no record of it.
void write_job(JsonWriter& json, const Job& job, const LiveState& live, const QueueState& queue);

// Whether an API client has asked for a run of this job that has not begun yet.
[[nodiscard]] bool is_run_queued(const LiveState& live, std::string_view job);

}  // namespace orv

#endif  // ORV_API_JOB_OBJECT_H_
