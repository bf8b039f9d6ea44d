// The settings of runs and of the daemon, as settled from the command line, [sched] and the
// built-in defaults. Passed down unchanged: nobody below the command line has defaults of its own.
#ifndef ORV_SCHED_SETTINGS_H_
#define ORV_SCHED_SETTINGS_H_

#include <cstdint>
#include <string>

#include "config/config.h"

namespace orv {

inline constexpr std::uint32_t kDefaultPollInterval = 30;   // seconds
inline constexpr std::uint32_t kDefaultJobTimeout = 86400;  // seconds
inline constexpr const char* kDefaultJobLogDir = "/var/log/orv/orv_sched-jobs";
inline constexpr std::uint32_t kDefaultJobLogKeep = 20;

// What every run of a job needs.
struct JobRunSettings {
  bool background = false;                          // --background for a tool that takes it
  std::uint32_t timeout_s = kDefaultJobTimeout;     // of jobs without a time limit of their own
  std::string job_log_dir = kDefaultJobLogDir;      // at most kMaxJobLogDir bytes
  std::uint32_t job_log_keep = kDefaultJobLogKeep;  // logs kept for each job; 0 keeps all
};

// How long a run of `job` may take, in seconds: its own limit, else `configured_s`, else the
// built-in one, 0 meaning that none is set. Never 0.
[[nodiscard]] inline std::uint32_t time_limit(const Job& job, std::uint32_t configured_s) {
  if (job.timeout_s != 0) return job.timeout_s;
  return configured_s != 0 ? configured_s : kDefaultJobTimeout;
}

struct DaemonSettings {
  std::string config_path;
  std::string queue_path;
  std::uint32_t poll_interval_s = kDefaultPollInterval;  // 0 waits as long as the default
  std::uint32_t busy_retry_s = kDefaultPollInterval;
  JobRunSettings run;
};

}  // namespace orv

#endif  // ORV_SCHED_SETTINGS_H_
