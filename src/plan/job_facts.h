// Gathers what is known of each job: from the queue, and from as few of its logs as will do.
#ifndef ORV_PLAN_JOB_FACTS_H_
#define ORV_PLAN_JOB_FACTS_H_

#include <vector>

#include "plan/health.h"
#include "plan/nominal.h"
#include "plan/past_runs.h"
#include "plan/plan.h"

namespace orv {

// The facts of `job` at plan.now. `runs` are its own; `gaps` belong to plan.config. Reads logs
// until the row of failures has ended and the usual duration is known; all of them while the job
// runs.
[[nodiscard]] JobFacts collect_facts(const Plan& plan, const Job& job, JobRuns& runs,
                                     LongestGaps& gaps);

}  // namespace orv

#endif  // ORV_PLAN_JOB_FACTS_H_
