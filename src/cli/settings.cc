#include "cli/settings.h"

#include <string_view>

#include "sched/daemon.h"
#include "sched/job_log.h"
#include "sched/job_run.h"

namespace orv {
namespace {

std::uint32_t settle(const ArgList& args, std::string_view flag, std::uint32_t configured,
                     std::uint32_t built_in) {
  return option_u32(args, flag, configured != 0 ? configured : built_in);
}

}  // namespace

RunSettings settle_run_settings(const ArgList& args, const SchedSection& sched) {
  const char* const directory =
      sched.job_log_dir.empty() ? kDefaultJobLogDir : sched.job_log_dir.c_str();
  RunSettings settings;
  settings.job_timeout_s =
      settle(args, "--job-timeout-seconds", sched.job_timeout_s, kDefaultJobTimeout);
  settings.job_log_dir =
      std::string(option_value(args, "--job-log-dir", directory)).substr(0, kMaxJobLogDir);
  settings.job_log_keep = settle(args, "--job-log-keep", sched.job_log_keep, kDefaultJobLogKeep);
  return settings;
}

LoopSettings settle_loop_settings(const ArgList& args, const SchedSection& sched) {
  LoopSettings settings;
  settings.poll_interval_s =
      settle(args, "--poll-interval", sched.poll_interval_s, kDefaultPollInterval);
  settings.busy_retry_s =
      settle(args, "--busy-retry-seconds", sched.busy_retry_s, settings.poll_interval_s);
  return settings;
}

}  // namespace orv
