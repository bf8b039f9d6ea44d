// What ran in the last days, over all jobs, and what it adds up to for each.
#ifndef ORV_PLAN_HISTORY_H_
#define ORV_PLAN_HISTORY_H_

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "plan/past_runs.h"
#include "plan/plan.h"

namespace orv {

struct HistoryRun {
  const Job* job = nullptr;  // borrowed from the plan's configuration
  PastRun run;
  std::string log;  // path; empty: it has none
};

// The runs of one job in the time of a history.
struct JobTotals {
  const Job* job = nullptr;
  std::uint32_t runs = 0;  // all, one that goes on included
  std::uint32_t busy = 0;  // ended with 75: neither done nor failed
  std::uint32_t done = 0;
  std::uint32_t failures = 0;             // lost ones included
  std::optional<std::int64_t> median_s;   // of the runs done
  std::optional<std::int64_t> longest_s;  // of the runs done
  // By how many percent the median of the last five runs done lies above that of those before.
  std::optional<std::int64_t> trend_percent;

  // Runs done of a thousand that were not busy and have ended; none when there are none.
  [[nodiscard]] std::optional<std::int64_t> success_permille() const {
    const std::uint32_t ended = done + failures;
    if (ended == 0) return std::nullopt;
    return 1000 * std::int64_t{done} / ended;
  }
};

struct History {
  std::int64_t from = 0;         // Unix seconds
  std::vector<HistoryRun> runs;  // by their start, the newest last
  std::vector<JobTotals> jobs;   // in the order of the file; jobs without a run are left out
  std::vector<LogNote> notes;    // faults of logs
};

// The runs of `only`, or of all jobs when it is null, that began at or after `from`. `plan`
// outlives the history.
[[nodiscard]] History collect_history(const Plan& plan, std::int64_t from, const Job* only);

// For a terminal: the runs, then a row of totals for each job.
[[nodiscard]] std::string history_text(const Plan& plan, const History& history);
[[nodiscard]] std::string history_json(const Plan& plan, const History& history);

}  // namespace orv

#endif  // ORV_PLAN_HISTORY_H_
