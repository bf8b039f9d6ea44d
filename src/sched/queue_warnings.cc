#include "sched/queue_warnings.h"

#include <algorithm>
#include <string>
#include <string_view>
#include <unordered_map>

#include "common/log.h"
#include "common/times.h"
#include "sched/queue_schedule.h"

namespace orv {
namespace {

constexpr const char* kSetAnew =
    "disable and enable the job, or edit its schedule, to have it set anew";
constexpr const char* kEnableAnew = "disable and enable the job to have it set anew";

// The next matches after one moment. Many jobs share a schedule, and each is searched once: a
// change through the API comes here for all jobs.
class NextMatches {
 public:
  explicit NextMatches(std::int64_t now) : now_(now) {}
  [[nodiscard]] std::int64_t of(const Job& job) {
    if (!job.has_schedule) return first_next_run(job, now_);
    const auto [match, fresh] = known_.try_emplace(job.schedule_text.view(), kNever);
    if (fresh) match->second = first_next_run(job, now_);
    return match->second;
  }

 private:
  std::int64_t now_;
  std::unordered_map<std::string_view, std::int64_t> known_;  // by the schedule's text
};

// The next run says "never" although there is a time to run at. Empty when it does not.
std::string never_text(const Job& job, const QueueRecord& record, std::int64_t now,
                       NextMatches& matches) {
  if (!has_time_ahead(job, now) || record.next_run != kNever ||
      record_state(record) == JobState::Running) {
    return {};
  }
  if (job.has_schedule && matches.of(job) == kNever) {
    return "has a schedule that matches no date: it never starts by itself";
  }
  const std::string what = job.has_schedule ? "schedule" : "once time";
  return "has a " + what +
         ", but its next run in the queue is \"never\" -- disable and enable the job, or edit "
         "its " +
         what + ", to have it set";
}

// The marks of a clock that was ahead; empty when there are none.
std::string clock_text(const Job& job, const QueueRecord& record, std::int64_t now,
                       NextMatches& matches) {
  if (!job.after.empty() && record.after_stamp > now) {
    return "has run for a dependency that finished in the future (" +
           local_time_cell(record.after_stamp) +
           "): the clock was wrong -- it starts after none before that time, unless it is taken "
           "out "
           "of the configuration for one poll interval";
  }
  // A retry has a time of its own, whatever the schedule says, unless it was set in the future.
  const bool retry = waits_for_retry(record);
  if (job.enabled && has_time(job) && record.next_run != kNever &&
      (!retry || record.finished_at > now)) {
    const std::int64_t match = matches.of(job);
    if (record.next_run > match) {
      return "is to run at " + local_time_cell(record.next_run) + ", beyond its " +
             (job.has_schedule ? "schedule's next match at " : "once time at ") +
             local_time_cell(match) + ": the clock or the time zone was another -- " +
             (retry ? kEnableAnew : kSetAnew);
    }
  }
  const std::int64_t last = std::max<std::int64_t>(record.started_at, record.finished_at);
  if (last > now) {
    return "ran last in the future (" + local_time_cell(last) +
           "): the clock was wrong -- run it once to put that right";
  }
  return {};
}

}  // namespace

void queue_warn_of_times(const QueueState& queue, const Config& config, std::int64_t now) {
  NextMatches matches(now);
  for (const Job& job : config.jobs) {
    const QueueRecord* const record = queue_find(queue, job.name.view());
    if (record == nullptr) continue;
    std::string text = never_text(job, *record, now, matches);
    if (text.empty()) text = clock_text(job, *record, now, matches);
    if (text.empty()) continue;
    log_msg(LogLevel::Warn, "orv_sched: job '%s' %s", job.name.c_str(), text.c_str());
  }
}

}  // namespace orv
