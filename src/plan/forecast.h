// What will run when: the daemon's own rules played through in memory, run after run, with the
// usual duration of each job and the assumption that every run succeeds.
#ifndef ORV_PLAN_FORECAST_H_
#define ORV_PLAN_FORECAST_H_

#include <cstddef>
#include <cstdint>
#include <functional>
#include <map>
#include <string>
#include <vector>

#include "config/config.h"
#include "plan/plan.h"
#include "sched/queue_state.h"

namespace orv {

inline constexpr std::int64_t kGuessedDuration = 600;   // seconds, of a job that never succeeded
inline constexpr std::size_t kMaxForecastRuns = 20000;  // an every-minute job for two weeks

// Seconds that a run usually takes, by job name; a job without an entry is guessed.
using Durations = std::map<std::string, std::int64_t, std::less<>>;
// The median of each job's newest successes, by its logs.
[[nodiscard]] Durations usual_durations(const Plan& plan);

enum class StartReason { Running, Schedule, Once, After };
[[nodiscard]] const char* start_reason_name(StartReason reason);

struct PlannedRun {
  const Job* job = nullptr;  // borrowed from the configuration
  std::int64_t start = 0;    // Unix seconds
  std::int64_t end = 0;
  bool guessed = false;  // the duration is a guess
  StartReason reason = StartReason::Schedule;
  std::int64_t late_s = 0;  // seconds after its time and the end of what it waits for
};

struct Forecast {
  std::vector<PlannedRun> runs;  // in the order of their starts, none starts after the horizon
  bool cut = false;              // kMaxForecastRuns reached
};

struct ForecastStart {
  std::int64_t now = 0;  // Unix seconds; when the next job may start
  std::int64_t horizon = 0;
  // The running jobs that were started by hand: such a run changes neither the time that is set nor
  // what counts as handled of the jobs waited for.
  std::vector<const Job*> by_hand;
};

// Plays the time from start.now to start.horizon. `queue` is the state to begin with, already in
// line with `config` and without records of lost runs. An idle daemon checks once in a poll
// interval; that wait is left out.
[[nodiscard]] Forecast make_forecast(const Config& config, QueueState queue,
                                     const Durations& durations, const ForecastStart& start);

}  // namespace orv

#endif  // ORV_PLAN_FORECAST_H_
