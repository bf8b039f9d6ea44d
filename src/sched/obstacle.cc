#include "sched/obstacle.h"

#include <algorithm>
#include <cstring>
#include <vector>

#include "sched/queue_runner.h"
#include "sched/run_file.h"

namespace orv {
namespace {

std::string quoted(std::string_view job) {
  return "'" + (job.empty() ? "?" : std::string(job)) + "'";
}

std::string pid_text(const Obstacle& obstacle) { return "(pid " + std::to_string(obstacle.pid); }

// "job 'a': the tool of a run whose scheduler is gone is still running (pid 17, log /var/...)"
std::string lost_text(const Obstacle& obstacle) {
  return "job " + quoted(obstacle.job) +
         ": the tool of a run whose scheduler is gone is still running " + pid_text(obstacle) +
         (obstacle.log.empty() ? "" : ", log " + obstacle.log) + ")";
}

std::string unread_text(const Obstacle& obstacle) {
  return "cannot tell whether a job runs: cannot read the run files beside the queue: " +
         std::string(std::strerror(obstacle.unread));
}

}  // namespace

std::optional<Obstacle> find_obstacle(const QueueState& queue) {
  if (const QueueRecord* const record = queue_find_live_runner(queue)) {
    const auto pid = static_cast<pid_t>(queue_get_runner_pid(*record));
    return Obstacle{false, std::string(record_name(*record)), pid, {}, 0};
  }
  const OtherRuns others = other_runs(queue.path);
  const std::vector<OtherRun>& runs = others.runs;
  if (runs.empty()) {
    if (others.unread == 0) return std::nullopt;
    Obstacle unknown;
    unknown.unread = others.unread;
    return unknown;
  }
  // A run that still has its scheduler ends by itself; it is named first.
  const auto running = std::find_if(
      runs.begin(), runs.end(), [](const OtherRun& run) { return run.phase == RunPhase::Running; });
  const OtherRun& run = running != runs.end() ? *running : runs.front();
  const bool lost = run.phase == RunPhase::Lost;
  return Obstacle{lost, run.note.job, lost ? run.note.tool.pid : run.note.runner.pid, run.note.log,
                  0};
}

bool job_runs_elsewhere(const QueueState& queue, std::string_view job) {
  const QueueRecord* const record = queue_find(queue, job);
  if (record != nullptr && queue_runner_alive(*record)) return true;
  const std::vector<OtherRun> runs = other_runs(queue.path).runs;
  return std::any_of(runs.begin(), runs.end(),
                     [job](const OtherRun& run) { return run.note.job == job; });
}

std::string refusal_text(const Obstacle& obstacle, std::string_view wanted_job) {
  const bool same = obstacle.unread == 0 && !obstacle.lost && obstacle.job == wanted_job;
  if (same) {
    return "job " + quoted(wanted_job) + " is already RUNNING " + pid_text(obstacle) +
           "; use --force to override)";
  }
  std::string who = "job " + quoted(obstacle.job) + " is RUNNING " + pid_text(obstacle) + ")";
  if (obstacle.lost) who = lost_text(obstacle);
  if (obstacle.unread != 0) who = unread_text(obstacle);
  return who + " -- jobs run one at a time, try again later (or use --force to run " +
         quoted(wanted_job) + " alongside it)";
}

std::string waiting_text(const Obstacle& obstacle) {
  if (obstacle.unread != 0) {
    return unread_text(obstacle) + " -- no job is started before that is known";
  }
  const std::string who = obstacle.lost
                              ? lost_text(obstacle)
                              : "job " + quoted(obstacle.job) + " is running in another process " +
                                    pid_text(obstacle) + ")";
  return who + " -- no job is started before it ends";
}

}  // namespace orv
