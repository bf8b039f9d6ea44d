#include "plan/history.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <time.h>

#include <algorithm>
#include <functional>

#include "common/files.h"

namespace orv {
namespace {

constexpr std::size_t kRunsLookedAt = 10;  // for a duration, before it counts as unknown
constexpr std::int32_t kExitBusy = 75;

// The start that a log's name stands for ("20261005T140000Z.log").
std::optional<std::int64_t> start_of(const std::string& name) {
  struct tm utc {};
  const char* end = ::strptime(name.c_str(), "%Y%m%dT%H%M%SZ", &utc);
  if (end == nullptr || std::string_view(end) != ".log") return std::nullopt;
  return ::timegm(&utc);
}

std::optional<PastRun> read_run(const std::string& path, std::int64_t start) {
  const ScopedFd fd = open_file(path.c_str(), O_RDONLY | O_NOFOLLOW | O_NONBLOCK);
  struct stat st {};
  if (!fd.valid() || ::fstat(fd.get(), &st) != 0 || !S_ISREG(st.st_mode)) return std::nullopt;
  PastRun run;
  run.start = start;
  read_job_log_trailer(fd.get(), st.st_size, run.trailer);
  return run;
}

}  // namespace

std::vector<PastRun> past_runs(std::string_view job_log_dir, std::string_view job,
                               std::size_t most) {
  const std::string directory = job_log_directory(job_log_dir, job) + "/";
  std::vector<std::string> names = directory_names(directory);
  // The names sort by time.
  std::sort(names.begin(), names.end(), std::greater<>());
  std::vector<PastRun> runs;
  for (const std::string& name : names) {
    if (runs.size() == most) break;
    const std::optional<std::int64_t> start = start_of(name);
    if (!start) continue;
    if (const auto run = read_run(directory + name, *start)) runs.push_back(*run);
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
