// How late runs started: against the time that their schedule names, or the end of what they wait
// for. Nothing records why a run was started, so it is worked out from the runs before it.
#ifndef ORV_PLAN_LATENESS_H_
#define ORV_PLAN_LATENESS_H_

#include <cstdint>
#include <span>
#include <vector>

#include "config/config.h"
#include "plan/past_runs.h"

namespace orv {

// The ends of the runs of one job that let a job after it go on, oldest first (Unix seconds).
using RunEnds = std::vector<std::int64_t>;
// Those among `runs`, which are sorted by their start, oldest first.
[[nodiscard]] RunEnds ends_for(AfterMode mode, std::span<const PastRun> runs);

// Sets late_s in the runs of `job`, which are sorted by their start, oldest first; `after` has the
// ends of each job of its 'after' list. A run ahead of its time was started by hand: it is not
// late.
void set_lateness(const Job& job, std::span<const RunEnds> after, std::span<PastRun> runs);

}  // namespace orv

#endif  // ORV_PLAN_LATENESS_H_
