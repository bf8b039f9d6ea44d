// The commands of orv_plan. Each prints its answer on standard output and returns the exit status.
#ifndef ORV_PLAN_COMMANDS_H_
#define ORV_PLAN_COMMANDS_H_

#include <cstdint>
#include <string>

#include "config/config.h"
#include "sched/queue_state.h"

namespace orv {

// What every command works on, loaded once. `seen` is the queue as the daemon left it, `queue` the
// same as the daemon's next look makes it: in line with the configuration, lost runs marked FAILED.
struct Plan {
  std::string config_path;
  std::string queue_path;
  std::string job_log_dir;
  Config config;
  QueueState seen;
  QueueState queue;
  std::int64_t now = 0;  // Unix seconds
  bool color = false;    // standard output is a terminal and NO_COLOR is not set
};

// The serial plan of the next `days` days; with `svg_path` also as a picture in that file.
int plan_forecast(const Plan& plan, unsigned days, const char* svg_path);
// One screen on one job: settings, next runs, last runs, and what keeps it from running now.
int plan_why(const Plan& plan, const Job& job);
// What exactly would be started for a job, and under which limits.
int plan_show(const Plan& plan, const Job& job);
// What is legal but surprising. 0 when there is nothing to tell, 1 otherwise.
int plan_check(const Plan& plan);

}  // namespace orv

#endif  // ORV_PLAN_COMMANDS_H_
