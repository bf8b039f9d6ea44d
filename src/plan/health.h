// A job's health: one word, decided from facts and the time alone.
#ifndef ORV_PLAN_HEALTH_H_
#define ORV_PLAN_HEALTH_H_

#include <array>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>

#include "plan/past_runs.h"

namespace orv {

inline constexpr std::int64_t kLateGrace = 600;      // seconds that a due job may wait
inline constexpr std::int64_t kShortestSlow = 600;   // seconds that any run may take
inline constexpr std::int64_t kStaleGaps = 2;        // longest gaps without a success
inline constexpr std::int64_t kSlowMedians = 3;      // medians that a run may take
inline constexpr std::int64_t kSlowLimitTenths = 9;  // tenths of the time limit

// In the order of trouble, the worst first.
enum class Health { Failed, Stale, Late, Slow, Never, Running, Waiting, Ok, Disabled };
inline constexpr std::size_t kHealthCount = 9;
inline constexpr std::array<Health, kHealthCount> kHealths = {
    Health::Failed,  Health::Stale,   Health::Late, Health::Slow,    Health::Never,
    Health::Running, Health::Waiting, Health::Ok,   Health::Disabled};
[[nodiscard]] const char* health_name(Health health);  // "failed", "stale", ...
// Whether the word asks for somebody to look: failed, stale, late, slow, never.
[[nodiscard]] bool health_is_trouble(Health health);

// What is known of one job. Times are Unix seconds; what is not known is none.
struct JobFacts {
  bool enabled = true;
  bool has_time_or_dependencies = false;
  bool once = false;        // it has a once time
  bool queue_known = true;  // false: the queue cannot be read, and running and due are guesses
  bool logs_known = true;   // false: some logs cannot be read, and there may be other runs

  std::optional<std::int64_t> running_since;  // none: it does not run
  bool other_running = false;                 // another job runs
  // Since when the scheduler could have started it: its time and the end of what it waits for have
  // passed. None while it is not due, runs, or is disabled.
  std::optional<std::int64_t> due_since;
  std::optional<std::int64_t> next_run;  // none: no time is set

  std::optional<std::int64_t> first_start;  // of all runs known; none: it never ran
  std::optional<PastRun> last_run;          // the newest, a running one included
  std::optional<PastRun> last_finished;     // the newest that has ended, a busy one included
  std::optional<PastRun> last_success;
  // The row of failed runs that the newest one ends. Busy runs in between are passed over.
  std::uint32_t failures = 0;
  std::optional<PastRun> last_failure;        // the newest of the row
  std::optional<std::int64_t> failing_since;  // start of its oldest

  std::optional<std::int64_t> usual_s;      // median of the newest kUsualRuns successes
  std::optional<std::int64_t> median_s;     // of all successes; known while the job runs
  std::optional<std::int64_t> longest_gap;  // seconds between nominal times
  std::int64_t time_limit = 0;              // seconds
  std::optional<std::int64_t> log_bytes;    // of the newest log
};

// How long, in seconds, the job may be without a success: `max_age` when given, else twice its
// longest gap. None: it is never stale.
[[nodiscard]] std::optional<std::int64_t> stale_after(const JobFacts& facts,
                                                      std::optional<std::int64_t> max_age);

// The first word that applies, in the order of the enumeration; Disabled comes before all.
[[nodiscard]] Health job_health(const JobFacts& facts, std::int64_t now,
                                std::optional<std::int64_t> max_age);

// Why the word applies, in a few words ("exit 1, 3 in a row since 2026-11-17 02:30:00"); empty when
// the word says it all.
[[nodiscard]] std::string health_reason(const JobFacts& facts, Health health, std::int64_t now,
                                        std::optional<std::int64_t> max_age);

}  // namespace orv

#endif  // ORV_PLAN_HEALTH_H_
