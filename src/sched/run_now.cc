#include "sched/run_now.h"

#include <poll.h>
#include <signal.h>

#include <cstdint>
#include <optional>
#include <string>

#include "common/clock.h"
#include "common/log.h"
#include "sched/obstacle.h"
#include "sched/queue_file.h"
#include "sched/queue_runner.h"
#include "sched/result_mail.h"
#include "sched/run_file.h"
#include "sched/stop_signals.h"

namespace orv {
namespace {

// SIGTERM, SIGHUP and Ctrl-C end the tool, and the run with it; Ctrl-C again does so at once.
StopRequest requested_stop(void*) {
  if (!stop_requested()) return StopRequest::None;
  return stop_is_urgent() ? StopRequest::Kill : StopRequest::Terminate;
}

constexpr std::int64_t kSavePatienceMs = 10'000;
constexpr int kSaveRetryMs = 500;

// Saves the outcome that the queue in memory holds. Without it the next scheduler would take the
// run for a lost one: a full disk, or a lock that cannot be had, is given some time to pass. In
// between others may have the queue, which is read anew.
void save_outcome(const Job& job, const JobRunResult& result, QueueState& queue, ScopedFd& lock) {
  const std::int64_t deadline = monotonic_ms() + kSavePatienceMs;
  for (bool said = false;;) {
    const bool last = monotonic_ms() >= deadline;
    // At the very end without the lock, too: an outcome that nobody knows is worse.
    if (lock.valid() || last) {
      const ErrorCode rc = queue_save(queue);
      if (rc == ErrorCode::Ok || last) return queue_log_unsaved(queue, rc);
      if (!said) queue_log_unsaved(queue, rc, " -- trying again for 10 seconds");
      said = true;
      lock.reset();
    }
    (void)::poll(nullptr, 0, kSaveRetryMs);
    run_store_outcome(job, result, queue, lock);
  }
}

// Signals are caught until the outcome is saved; the mail after it may be interrupted.
JobRunResult run_and_save(const Job& job, const JobRunSettings& settings, QueueState& queue,
                          ScopedFd& lock) {
  const StopSignals signals({SIGINT, SIGTERM, SIGHUP}, IfIgnored::StaysIgnored);
  const Poller poller{requested_stop, nullptr, nullptr};
  JobRunResult result = run_job(job, settings, queue, lock, &poller, nullptr);
  save_outcome(job, result, queue, lock);
  lock.reset();
  return result;
}

}  // namespace

ErrorCode run_now(const Config& config, QueueState& queue, std::string_view job_name,
                  const JobRunSettings& settings, bool force) {
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
  remove_dead_run_files(queue.path);
  const std::optional<Obstacle> obstacle = force ? std::nullopt : find_obstacle(queue);
  if (obstacle) {
    log_msg(LogLevel::Error, "orv_sched: %s", refusal_text(*obstacle, name).c_str());
    return ErrorCode::Unavailable;
  }
  const JobRunResult result = run_and_save(*job, settings, queue, lock);
  send_result_mail(config, name, result, nullptr);
  return result.result == RunResult::Done ? ErrorCode::Ok : ErrorCode::IoError;
}

}  // namespace orv
