// The times that a schedule names, around a moment: what a run should have started at, and how long
// a job may rest between two of them.
#ifndef ORV_PLAN_NOMINAL_H_
#define ORV_PLAN_NOMINAL_H_

#include <cstddef>
#include <cstdint>
#include <map>
#include <optional>
#include <string_view>
#include <vector>

#include "config/config.h"
#include "sched/queue_record.h"

namespace orv {

inline constexpr std::size_t kNominalTimes = 10;  // taken on either side of now

// The newest `most` matches at or before `now` (Unix seconds), oldest first; fewer when the
// schedule has no more within about eight years.
[[nodiscard]] std::vector<std::int64_t> past_matches(const CronSpec& schedule, std::int64_t now,
                                                     std::size_t most);
// The first `most` matches after `now`, oldest first.
[[nodiscard]] std::vector<std::int64_t> next_matches(const CronSpec& schedule, std::int64_t now,
                                                     std::size_t most);

// The next time, in Unix seconds, that will start the job: its record's, unless it is running and
// that is the time it was started for. None when no time is set, and for a disabled job.
[[nodiscard]] std::optional<std::int64_t> next_start(const Job& job, const QueueRecord& record,
                                                     std::int64_t now, bool running);

// The longest rest between two nominal times, for the jobs of one configuration. A job that waits
// for others can run no more often than they: it has the longest of its own gap and theirs. Each
// job is worked out once.
class LongestGaps {
 public:
  // `config` is borrowed. Its 'after' lists form no cycle: the loader has proved that.
  LongestGaps(const Config& config, std::int64_t now) : config_(config), now_(now) {}
  // Seconds; none for a job without a schedule in itself or in what it waits for.
  [[nodiscard]] std::optional<std::int64_t> of(const Job& job);

 private:
  const Config& config_;
  std::int64_t now_;
  std::map<const Job*, std::optional<std::int64_t>> known_;
};

}  // namespace orv

#endif  // ORV_PLAN_NOMINAL_H_
