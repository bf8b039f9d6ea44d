// What the commands of orv_plan work on: configuration and queue, loaded once, at one moment.
#ifndef ORV_PLAN_PLAN_H_
#define ORV_PLAN_PLAN_H_

#include <cstdint>
#include <memory>
#include <optional>
#include <string>

#include "config/config.h"
#include "plan/past_runs.h"
#include "sched/obstacle.h"
#include "sched/queue_state.h"

namespace orv {

// `seen` is the queue as the file holds it, `queue` the same as the daemon's next check makes it:
// in line with the configuration, lost runs marked FAILED.
struct Plan {
  std::string config_path;
  std::string queue_path;
  std::string job_log_dir;     // with a subdirectory for each job
  Config config;               // empty when it would be refused
  std::string config_message;  // why the configuration would be refused; empty: it loads
  QueueState seen;
  QueueState queue;
  std::string queue_message;         // why the queue cannot be read; empty: it can
  std::optional<Obstacle> obstacle;  // a run that no other may be started beside
  std::int64_t now = 0;              // Unix seconds
  bool color = false;                // for the terminal
};

struct PlanPaths {
  std::string config;
  std::string queue;
  std::string job_log_dir;  // empty: as the configuration says, else the default
};

// Loads everything as it is at `now`. Nothing is created or locked. What cannot be read is said in
// the two messages; the plan is complete only when both are empty.
[[nodiscard]] std::unique_ptr<Plan> load_plan(const PlanPaths& paths, std::int64_t now);

// Brings `queue` in line with `config` and marks lost runs, in memory only.
void settle_queue(Plan& plan);

// The runs of `job`, read from its logs as they are asked for. `plan` outlives them.
[[nodiscard]] JobRuns runs_of(const Plan& plan, const Job& job);

}  // namespace orv

#endif  // ORV_PLAN_PLAN_H_
