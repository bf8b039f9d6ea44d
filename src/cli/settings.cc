#include "cli/settings.h"

#include <string>
#include <string_view>

namespace orv {
namespace {

// A 0 in the file means not set; one on the command line is a value.
std::uint32_t number(const ArgList& args, std::string_view option, std::uint32_t configured,
                     std::uint32_t built_in) {
  return option_u32(args, option, configured != 0 ? configured : built_in);
}

std::string text(const ArgList& args, std::string_view option, std::string_view configured,
                 const std::string& built_in, std::size_t longest) {
  const std::string fallback = configured.empty() ? built_in : std::string(configured);
  return std::string(option_value(args, option, fallback.c_str())).substr(0, longest);
}

}  // namespace

DaemonSettings settle(const CommandContext& context, const SchedSection& sched) {
  const ArgList& args = context.args;
  DaemonSettings s;  // holds the built-in defaults until each is settled
  s.config_path = context.config_path;
  s.queue_path = context.queue_path;
  s.poll_interval_s = number(args, "--poll-interval", sched.poll_interval_s, s.poll_interval_s);
  s.busy_retry_s = number(args, "--busy-retry-seconds", sched.busy_retry_s, s.poll_interval_s);
  s.run.timeout_s = number(args, "--job-timeout-seconds", sched.job_timeout_s, s.run.timeout_s);
  s.run.job_log_dir =
      text(args, "--job-log-dir", sched.job_log_dir.view(), s.run.job_log_dir, kMaxJobLogDir);
  s.run.job_log_keep = number(args, "--job-log-keep", sched.job_log_keep, s.run.job_log_keep);
  return s;
}

}  // namespace orv
