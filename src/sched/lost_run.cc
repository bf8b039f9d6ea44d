#include "sched/lost_run.h"

#include "sched/job_log.h"
#include "sched/job_run.h"
#include "sched/queue_runner.h"
#include "sched/subprocess.h"

namespace orv {
namespace {

// The sweep of dead runners sets no finish time, so the start is left as the newest thing known. A
// run that ended done is concluded even when the clock was put back meanwhile.
bool never_concluded(const QueueRecord& record) {
  return record.started_at > record.finished_at && record_state(record) != JobState::Done &&
         !queue_runner_alive(record);
}

std::int64_t longest_run(const Config& config, std::string_view job_name, std::uint32_t timeout_s) {
  static const Job kUnknown;
  const Job* const job = find_job(config, job_name);
  timeout_s = time_limit(job != nullptr ? *job : kUnknown, timeout_s);
  return std::int64_t{timeout_s} + kKillAfterSeconds + 1;
}

}  // namespace

const QueueRecord* find_lost_run(const QueueState& queue, const Config& config,
                                 const std::string& job_log_dir, std::uint32_t timeout_s,
                                 std::int64_t now) {
  for (const QueueRecord& record : queue.records()) {
    if (!never_concluded(record)) continue;
    const std::string_view job = record_name(record);
    if (now - record.started_at > longest_run(config, job, timeout_s)) continue;
    const std::string directory = job_log_directory(job_log_dir, job);
    if (job_log_in_use(job_log_path(directory, record.started_at))) return &record;
  }
  return nullptr;
}

}  // namespace orv
