// Job log files: one per run, "<job-log dir>/<job>/<run id>.log", with a header, the tool's own
// output and a trailer. The run id is the start of the run in UTC, "20261005T140000Z", so that the
// names sort by time; runs of one second share a log. A log without a trailer belongs to a run that
// has not ended or was lost.
#ifndef ORV_SCHED_JOB_LOG_H_
#define ORV_SCHED_JOB_LOG_H_

#include <cstddef>
#include <cstdint>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "common/scoped_fd.h"
#include "config/config.h"

namespace orv {

inline constexpr std::size_t kRunIdLength = 16;  // bytes

struct JobLogTrailer {
  bool finished = false;  // an end marker was found; the rest is valid only then
  std::int64_t finish_unix = 0;
  std::int32_t exit_code = 0;
  bool timed_out = false;
  bool cancelled = false;
};

// "<job-log dir>/<job>".
[[nodiscard]] std::string job_log_directory(std::string_view job_log_dir, std::string_view job);
// The log of a run that starts at `start` (Unix seconds), in the job's directory.
[[nodiscard]] std::string job_log_path(std::string_view directory, std::int64_t start);

// Whether the text has the form of a run id; its digits may still name no date.
[[nodiscard]] bool is_run_id(std::string_view text);
// Unix seconds of the start that a run id names; fields out of range are carried over.
[[nodiscard]] std::int64_t run_start(std::string_view run_id);
// The run ids that the names in the job's directory give, newest first, whatever the entries are.
// None when the directory cannot be read.
[[nodiscard]] std::vector<std::string> list_run_ids(const std::string& directory);

// A job log opened for reading, and its size at that moment.
struct JobLogFile {
  ScopedFd file;
  std::int64_t size = 0;  // bytes
};
// Opens the log of a run when it is a regular file, no link. Blocks on nothing.
[[nodiscard]] bool open_job_log(const std::string& directory, std::string_view run_id,
                                JobLogFile& out);

// The header's text: job, argument vector (null-ended), start time.
[[nodiscard]] std::string job_log_header(const Job& job, std::span<const char* const> argv,
                                         std::int64_t start);
// The trailer's text; `cancelled_by` is null unless the run was cancelled.
[[nodiscard]] std::string job_log_trailer(std::int64_t finish, std::int32_t exit_code,
                                          bool timed_out, const char* cancelled_by);

// Reads the trailer of an open log from its last 512 bytes; the last marker wins.
void read_job_log_trailer(int fd, std::int64_t file_size, JobLogTrailer& trailer);

// Deletes the oldest logs of the directory until `keep` remain; 0 keeps all. `newest` is the path
// of the log just written, which counts but always stays. Errors are ignored.
void rotate_job_logs(const std::string& directory, std::uint32_t keep, std::string_view newest);

}  // namespace orv

#endif  // ORV_SCHED_JOB_LOG_H_
