#include "sched/run_now.h"

#include <ctime>
#include <string>
#include <utility>

#include "common/log.h"
#include "sched/lost_run.h"
#include "sched/queue_file.h"
#include "sched/queue_runner.h"
#include "sched/result_mail.h"

namespace orv {
namespace {

// Whether a job runs already, beside which `job` must not be started; logged.
bool refused(const QueueState& queue, const Config& config, const JobRunSettings& settings,
             const std::string& job) {
  if (const QueueRecord* const runner = queue_find_live_runner(queue)) {
    const std::string running(record_name(*runner));
    const std::uint32_t pid = queue_get_runner_pid(*runner);
    if (running == job) {
      log_msg(LogLevel::Error,
              "orv_sched: job '%s' is already RUNNING (pid %u; use --force to override)",
              job.c_str(), pid);
    } else {
      log_msg(
          LogLevel::Error,
          "orv_sched: job '%s' is RUNNING (pid %u) -- jobs run one at a time, try again later (or "
          "use --force to run '%s' alongside it)",
          running.c_str(), pid, job.c_str());
    }
    return true;
  }
  const QueueRecord* const lost =
      find_lost_run(queue, config, settings.job_log_dir, settings.timeout_s, std::time(nullptr));
  if (lost == nullptr) return false;
  log_msg(
      LogLevel::Error,
      "orv_sched: job '%s': the tool of a run whose scheduler is gone is still running -- jobs run "
      "one at a time, try again later (or use --force to run '%s' alongside it)",
      std::string(record_name(*lost)).c_str(), job.c_str());
  return true;
}

}  // namespace

ErrorCode run_now(const Config& config, QueueState& queue, std::string_view job_name,
                  JobRunSettings settings, bool force) {
  const std::string name(job_name);
  const Job* const job = find_job(config, name);
  if (job == nullptr) {
    log_msg(LogLevel::Error, "orv_sched: unknown job '%s'", name.c_str());
    return ErrorCode::NotFound;
  }
  ScopedFd lock = queue_lock(queue.path.c_str());
  // Without the lock nothing would keep a second job from running beside this one.
  if (!lock.valid()) return ErrorCode::IoError;
  if (queue_reload(queue) != ErrorCode::Ok) {
    log_msg(LogLevel::Error, "orv_sched: cannot re-read the queue %s -- using the in-memory copy",
            queue.path.c_str());
  }
  queue_log_unsaved(queue, queue_sweep_stale_runners(queue));
  if (!force && refused(queue, config, settings, name)) return ErrorCode::Unavailable;
  settings.timeout_s = time_limit(*job, settings.timeout_s);
  JobRunResult result;
  const RunResult outcome = run_job(*job, settings, queue, lock, nullptr, result);
  queue_log_unsaved(queue, queue_save(queue));
  lock.reset();
  send_result_mail(config, name, result, nullptr);
  return outcome == RunResult::Done ? ErrorCode::Ok : ErrorCode::IoError;
}

}  // namespace orv
