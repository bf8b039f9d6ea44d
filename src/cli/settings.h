// The settings that come from the command line, else from [sched], else from the built-in defaults.
#ifndef ORV_CLI_SETTINGS_H_
#define ORV_CLI_SETTINGS_H_

#include <cstdint>
#include <string>

#include "common/options.h"
#include "config/config.h"

namespace orv {

// What every run of a job needs. A value from the command line is used as it is, 0 included; a 0 in
// [sched] means not set.
struct RunSettings {
  std::uint32_t job_timeout_s = 0;
  std::string job_log_dir;
  std::uint32_t job_log_keep = 0;
};
[[nodiscard]] RunSettings settle_run_settings(const ArgList& args, const SchedSection& sched);

// What the daemon needs on top.
struct LoopSettings {
  std::uint32_t poll_interval_s = 0;
  std::uint32_t busy_retry_s = 0;  // by default the poll interval as settled
};
[[nodiscard]] LoopSettings settle_loop_settings(const ArgList& args, const SchedSection& sched);

}  // namespace orv

#endif  // ORV_CLI_SETTINGS_H_
