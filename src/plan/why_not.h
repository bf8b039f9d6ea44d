// What keeps a job from being started now, each reason one plain sentence.
#ifndef ORV_PLAN_WHY_NOT_H_
#define ORV_PLAN_WHY_NOT_H_

#include <string>
#include <vector>

#include "plan/daemon_process.h"
#include "plan/plan.h"

namespace orv {

// The reasons against a start of `job`, one of the plan's, at plan.now; empty when it starts at the
// daemon's next check.
[[nodiscard]] std::vector<std::string> reasons_not_now(const Plan& plan, const Job& job,
                                                       const DaemonProcess& daemon);

// Whether the record says "never" although a time of the job is still to come: a job that was first
// run by hand. A once job that has run is no such case.
[[nodiscard]] bool stuck_at_never(const Job& job, const QueueRecord& record, std::int64_t now);

}  // namespace orv

#endif  // ORV_PLAN_WHY_NOT_H_
