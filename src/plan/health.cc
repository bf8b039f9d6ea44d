#include "plan/health.h"

#include "plan/describe.h"

namespace orv {
namespace {

// Since when the job is without a success: the end of the newest one, else its first run.
std::optional<std::int64_t> successless_since(const JobFacts& facts) {
  if (facts.last_success) return facts.last_success->end.value_or(facts.last_success->start);
  return facts.first_start;
}

bool is_stale(const JobFacts& facts, std::int64_t now, std::optional<std::int64_t> max_age) {
  const std::optional<std::int64_t> limit = stale_after(facts, max_age);
  const std::optional<std::int64_t> since = successless_since(facts);
  return limit && since && now - *since > *limit;
}

bool is_late(const JobFacts& facts, std::int64_t now) {
  // While another job runs it has to wait, however long that takes.
  return facts.due_since && !facts.running_since && !facts.other_running &&
         now - *facts.due_since > kLateGrace;
}

// A run beyond nine tenths of its time limit is about to be ended.
bool nears_time_limit(const JobFacts& facts, std::int64_t took) {
  return took * 10 > facts.time_limit * kSlowLimitTenths;
}

bool is_slow(const JobFacts& facts, std::int64_t now) {
  if (!facts.running_since) return false;
  // A job of seconds may take minutes now and then: below ten of them only the limit counts.
  const std::int64_t took = now - *facts.running_since;
  return nears_time_limit(facts, took) ||
         (facts.median_s && took > kSlowMedians * *facts.median_s && took > kShortestSlow);
}

// How the newest failure ended, how many there are in a row, and since when.
std::string failed_reason(const JobFacts& facts) {
  const PastRun& run = *facts.last_failure;
  std::string text = failure_text(run);
  if (run.outcome == PastOutcome::Lost) text += " (its scheduler was gone before it ended)";
  if (facts.failures > 1) text += ", " + std::to_string(facts.failures) + " in a row";
  return text + " since " + clock_text(*facts.failing_since);
}

std::string stale_reason(const JobFacts& facts, std::int64_t now, std::int64_t limit) {
  const std::string age = duration_text(now - *successless_since(facts));
  return (facts.last_success ? "last success ended " + age + " ago"
                             : "no success since its first run " + age + " ago") +
         ", more than " + duration_text(limit);
}

std::string slow_reason(const JobFacts& facts, std::int64_t now) {
  const std::int64_t took = now - *facts.running_since;
  const std::string text = "running for " + duration_text(took);
  if (nears_time_limit(facts, took)) {
    return text + ", its time limit is " + duration_text(facts.time_limit);
  }
  return text + ", usually " + duration_text(*facts.median_s);
}

}  // namespace

const char* health_name(Health health) {
  switch (health) {
    case Health::Failed: return "failed";
    case Health::Stale: return "stale";
    case Health::Late: return "late";
    case Health::Slow: return "slow";
    case Health::Never: return "never";
    case Health::Running: return "running";
    case Health::Waiting: return "waiting";
    case Health::Ok: return "ok";
    case Health::Disabled: return "disabled";
  }
  return "?";
}

bool health_is_trouble(Health health) { return health <= Health::Never; }

std::optional<std::int64_t> stale_after(const JobFacts& facts,
                                        std::optional<std::int64_t> max_age) {
  if (facts.once) return std::nullopt;  // it has no next success to wait for
  if (max_age) return max_age;
  if (!facts.longest_gap) return std::nullopt;
  return kStaleGaps * *facts.longest_gap;
}

// The order is the rule: a job that fails is "failed" also while it runs again.
Health job_health(const JobFacts& facts, std::int64_t now, std::optional<std::int64_t> max_age) {
  if (!facts.enabled) return Health::Disabled;
  if (facts.failures > 0) return Health::Failed;
  if (is_stale(facts, now, max_age)) return Health::Stale;
  if (is_late(facts, now)) return Health::Late;
  if (is_slow(facts, now)) return Health::Slow;
  if (facts.has_time_or_dependencies && !facts.first_start) return Health::Never;
  if (facts.running_since) return Health::Running;
  if (facts.due_since && facts.other_running) return Health::Waiting;
  return Health::Ok;
}

std::string health_reason(const JobFacts& facts, Health health, std::int64_t now,
                          std::optional<std::int64_t> max_age) {
  switch (health) {
    case Health::Failed: return failed_reason(facts);
    case Health::Stale: return stale_reason(facts, now, *stale_after(facts, max_age));
    case Health::Late:
      return "due since " + clock_text(*facts.due_since) +
             " and not started, though no other job is running";
    case Health::Slow: return slow_reason(facts, now);
    case Health::Never:
      if (!facts.logs_known) return "no run is known, its logs cannot be read";
      return facts.next_run ? "first run " + clock_text(*facts.next_run) : "has not run yet";
    case Health::Running: return "since " + clock_text(*facts.running_since);
    case Health::Waiting:
      return "due since " + clock_text(*facts.due_since) + ", another job is running";
    case Health::Ok:
    case Health::Disabled: return {};
  }
  return {};
}

}  // namespace orv
