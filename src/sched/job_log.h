// Job log files: one per run, "<job-log dir>/<job>/<start, UTC>.log", with a header, the tool's own
// output and a trailer. A log without a trailer belongs to a run that has not ended or was lost.
#ifndef ORV_SCHED_JOB_LOG_H_
#define ORV_SCHED_JOB_LOG_H_

#include <cstdint>
#include <span>
#include <string>
#include <string_view>

#include "common/scoped_fd.h"
#include "config/config.h"

namespace orv {

inline constexpr const char* kDefaultJobLogDir = "/var/log/orv/orv_sched-jobs";
inline constexpr std::uint32_t kDefaultJobLogKeep = 20;

struct JobLogTrailer {
  bool finished = false;  // an end marker was found; the rest is valid only then
  std::int64_t finish_unix = 0;
  std::int32_t exit_code = 0;
  bool timed_out = false;
  bool cancelled = false;
};

// "<job-log dir>/<job>".
[[nodiscard]] std::string job_log_directory(std::string_view job_log_dir, std::string_view job);
// "<directory>/<start in UTC as 20261005T140000Z>.log".
[[nodiscard]] std::string job_log_path(std::string_view directory, std::int64_t start);

// The header's text: job, argument vector (null-ended), start time.
[[nodiscard]] std::string job_log_header(const Job& job, std::span<const char* const> argv,
                                         std::int64_t start);
// The trailer's text; `cancelled_by` is null unless the run was cancelled.
[[nodiscard]] std::string job_log_trailer(std::int64_t finish, std::int32_t exit_code,
                                          bool timed_out, const char* cancelled_by);

// Marks the open log as in use, for as long as the tool (or what it has started) holds it open,
// also beyond the life of the scheduler.
void job_log_mark_used(int fd);
// Whether somebody still holds the log at `path` open as a tool's output.
[[nodiscard]] bool job_log_in_use(const std::string& path);

// Reads the trailer of an open log from its last 512 bytes; the last marker wins.
void read_job_log_trailer(int fd, std::int64_t file_size, JobLogTrailer& trailer);

// Deletes the oldest logs of the directory until `keep` remain; 0 keeps all. Errors are ignored.
void rotate_job_logs(const std::string& directory, std::uint32_t keep);

}  // namespace orv

#endif  // ORV_SCHED_JOB_LOG_H_
