#include "plan/plan.h"

#include <errno.h>
#include <string.h>
#include <sys/stat.h>

#include <array>

#include "sched/job_log.h"
#include "sched/queue_file.h"
#include "sched/queue_runner.h"
#include "sched/queue_schedule.h"
#include "sched/settings.h"

namespace orv {
namespace {

// A queue that may not be read must not pass for one that does not exist yet.
std::string load_queue(Plan& plan) {
  struct stat status {};
  if (::stat(plan.queue_path.c_str(), &status) != 0) {
    return errno == ENOENT ? "" : ::strerror(errno);
  }
  const ErrorCode rc = queue_load_readonly(plan.seen, plan.queue_path.c_str());
  return rc == ErrorCode::Ok ? "" : failure_text(rc);
}

}  // namespace

std::unique_ptr<Plan> load_plan(const PlanPaths& paths, std::int64_t now) {
  auto plan = std::make_unique<Plan>();
  plan->config_path = paths.config;
  plan->queue_path = paths.queue;
  plan->now = now;
  std::array<char, kConfigMessageSize> err{};
  if (config_load(paths.config.c_str(), plan->config, err) != 0) {
    plan->config_message = err.data();
    config_release(plan->config);  // what was read before the fault is no configuration
  }
  const FixedText<kMaxJobLogDir>& configured = plan->config.sched.job_log_dir;
  plan->job_log_dir = !paths.job_log_dir.empty() ? paths.job_log_dir
                      : configured.empty()       ? kDefaultJobLogDir
                                                 : configured.c_str();
  plan->seen.path = plan->queue_path;  // also of a queue that is not there yet
  plan->queue_message = load_queue(*plan);
  settle_queue(*plan);
  return plan;
}

void settle_queue(Plan& plan) {
  plan.obstacle = find_obstacle(plan.seen);
  plan.queue = plan.seen;
  queue_view_with_config(plan.queue, plan.config, plan.now);
  queue_view_without_stale_runners(plan.queue);
}

JobRuns runs_of(const Plan& plan, const Job& job) {
  return {plan.job_log_dir, job.name.view(), queue_find(plan.seen, job.name.view()),
          plan.queue_message.empty()};
}

}  // namespace orv
