// What is worth telling about a job: why it does not run now, and what in its configuration is
// legal but surprising. Each finding is one plain sentence.
#ifndef ORV_PLAN_FINDINGS_H_
#define ORV_PLAN_FINDINGS_H_

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "config/config.h"
#include "plan/history.h"
#include "sched/queue_state.h"

namespace orv {

// What keeps `job`, one of `config`'s, from being started at `now`; empty when it starts at the
// daemon's next look. `queue` is in line with the configuration and without records of lost runs.
[[nodiscard]] std::vector<std::string> blockers(const Config& config, const QueueState& queue,
                                                const Job& job, std::int64_t now);

// Whether processes of others are to be seen, and none of them is a daemon: nothing starts then.
[[nodiscard]] bool daemon_seems_absent();

// A local time span that a change of the clock skips: from `at` (Unix seconds) on, local times in
// [begin, end) of that date do not exist.
struct ClockGap {
  std::int64_t at = 0;
  std::int64_t begin = 0;  // as if UTC: seconds of the civil clock
  std::int64_t end = 0;
};
// The gaps of the local time zone between `from` and `to` (Unix seconds).
[[nodiscard]] std::vector<ClockGap> clock_gaps(std::int64_t from, std::int64_t to);

// The scheduled local times that the gap swallows, as "2027-03-28 02:30"; at most one an hour of
// it.
[[nodiscard]] std::vector<std::string> skipped_times(const CronSpec& cron, const ClockGap& gap);

// All that is surprising about the configured jobs, each finding led by "[job]: ".
[[nodiscard]] std::vector<std::string> check_jobs(const Config& config, const QueueState& queue,
                                                  const Durations& durations, std::int64_t now);

}  // namespace orv

#endif  // ORV_PLAN_FINDINGS_H_
