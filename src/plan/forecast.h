// What will run when: the daemon's own rules played through in memory, run after run, with the last
// known duration of each job and the assumption that every run succeeds.
#ifndef ORV_PLAN_FORECAST_H_
#define ORV_PLAN_FORECAST_H_

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "config/config.h"
#include "plan/history.h"
#include "sched/queue_state.h"

namespace orv {

inline constexpr std::int64_t kGuessedDuration = 600;   // seconds, of a job that never ran
inline constexpr std::size_t kMaxForecastRuns = 20000;  // an every-minute job for two weeks

enum class StartReason { Running, Schedule, Once, After };
[[nodiscard]] const char* start_reason_name(StartReason reason);

struct PlannedRun {
  const Job* job = nullptr;  // borrowed from the configuration
  std::int64_t start = 0;    // Unix seconds
  std::int64_t end = 0;
  bool guessed = false;  // the duration is a guess
  StartReason reason = StartReason::Schedule;
  std::int64_t late_s = 0;  // seconds behind the scheduled time, because other jobs were running
};

struct Forecast {
  std::vector<PlannedRun> runs;  // in the order of their starts, none starts after the horizon
  bool cut = false;              // kMaxForecastRuns reached
};

// Plays the time from `now` to `horizon` (Unix seconds). `queue` is the state to begin with,
// already in line with `config` and without records of lost runs; it is used up. The pause between
// two looks of an idle daemon is left out.
[[nodiscard]] Forecast make_forecast(const Config& config, QueueState queue,
                                     const Durations& durations, std::int64_t now,
                                     std::int64_t horizon);

}  // namespace orv

#endif  // ORV_PLAN_FORECAST_H_
