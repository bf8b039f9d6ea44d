// Where the local clock goes forward or back, and what that does to schedules.
#ifndef ORV_PLAN_CLOCK_CHANGES_H_
#define ORV_PLAN_CLOCK_CHANGES_H_

#include <cstdint>
#include <string>
#include <vector>

#include "config/cron.h"

namespace orv {

// A change of the local clock at `at` (Unix seconds). Forward, the local times in [begin, end) of
// that date do not exist; back, those in [end, begin) come twice.
struct ClockChange {
  std::int64_t at = 0;
  std::int64_t begin = 0;  // what the clock would have shown without the change, as if UTC
  std::int64_t end = 0;    // what it shows instead
  [[nodiscard]] bool forward() const { return end > begin; }
};
// The changes between `from` and `to` (Unix seconds), oldest first.
[[nodiscard]] std::vector<ClockChange> clock_changes(std::int64_t from, std::int64_t to);

// The scheduled local times that a change forward swallows, as "2027-03-28 02:30"; at most one for
// each hour of it.
[[nodiscard]] std::vector<std::string> skipped_times(const CronSpec& cron,
                                                     const ClockChange& change);

}  // namespace orv

#endif  // ORV_PLAN_CLOCK_CHANGES_H_
