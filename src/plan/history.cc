#include "plan/history.h"

#include "sched/job_run.h"

namespace orv {
namespace {

constexpr std::size_t kRunsLookedAt = 10;  // for a duration, before it counts as unknown

std::optional<PastRun> read_run(const std::string& directory, std::string_view run_id) {
  JobLogFile log;
  if (!open_job_log(directory, run_id, log)) return std::nullopt;
  PastRun run;
  run.start = run_start(run_id);
  read_job_log_trailer(log.file.get(), log.size, run.trailer);
  return run;
}

}  // namespace

std::vector<PastRun> past_runs(std::string_view job_log_dir, std::string_view job,
                               std::size_t most) {
  const std::string directory = job_log_directory(job_log_dir, job);
  std::vector<PastRun> runs;
  for (const std::string& run_id : list_run_ids(directory)) {
    if (runs.size() == most) break;
    if (const auto run = read_run(directory, run_id)) runs.push_back(*run);
  }
  return runs;
}

std::optional<std::int64_t> last_duration(std::string_view job_log_dir, std::string_view job) {
  for (const PastRun& run : past_runs(job_log_dir, job, kRunsLookedAt)) {
    const bool worked = run.trailer.finished && run.trailer.exit_code != kExitBusy;
    if (worked && run.duration_s() >= 0) return run.duration_s();
  }
  return std::nullopt;
}

Durations last_durations(std::string_view job_log_dir, const Config& config) {
  Durations durations;
  for (const Job& job : config.jobs) {
    if (const auto seconds = last_duration(job_log_dir, job.name.view())) {
      durations.emplace(job.name.view(), *seconds);
    }
  }
  return durations;
}

}  // namespace orv
