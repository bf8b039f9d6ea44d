#include "plan/lateness.h"

#include <algorithm>
#include <optional>

#include "plan/nominal.h"
#include "sched/queue_schedule.h"

namespace orv {
namespace {

using Moment = std::optional<std::int64_t>;

// The job's own time as the daemon keeps it: a run that was due sets the next match after its end;
// one that found its tool busy, was lost, or was started by hand ahead of its time leaves it.
class OwnTime {
 public:
  explicit OwnTime(const Job& job) : job_(job) {}

  // The time that a run starting at `start` was due at; none when it had not come.
  [[nodiscard]] Moment due_at(std::int64_t start) {
    if (!time_) time_ = first_time(start);
    return time_ && *time_ <= start ? time_ : std::nullopt;
  }
  void run_ended(const PastRun& run) {
    if (!time_ || *time_ > run.start || !run.end || run.outcome == PastOutcome::Busy) return;
    time_ = job_.has_schedule ? cron_next_run(job_.schedule, *run.end, false) : INT64_MAX;
    if (*time_ < 1) time_ = INT64_MAX;  // no further match
  }

 private:
  // Of the oldest run known, the newest match is the best guess.
  [[nodiscard]] Moment first_time(std::int64_t start) const {
    if (!job_.has_schedule) return job_.once;
    const std::vector<std::int64_t> times = past_matches(job_.schedule, start, 1);
    return times.empty() ? std::nullopt : Moment(times.back());
  }

  const Job& job_;
  Moment time_;
};

// The end that a run starting at `start` followed: the newest one of any of the jobs, none when the
// job has already run since (`last_start`).
Moment followed_end(std::span<const RunEnds> after, std::int64_t start, Moment last_start) {
  Moment newest;
  for (const RunEnds& ends : after) {
    const auto beyond = std::upper_bound(ends.begin(), ends.end(), start);
    if (beyond == ends.begin()) continue;
    newest = std::max(newest.value_or(0), *std::prev(beyond));
  }
  return newest && (!last_start || *newest > *last_start) ? newest : std::nullopt;
}

}  // namespace

RunEnds ends_for(AfterMode mode, std::span<const PastRun> runs) {
  RunEnds ends;
  for (const PastRun& run : runs) {
    const bool enough = run.outcome == PastOutcome::Done ||
                        (mode == AfterMode::Finished && run_failed(run.outcome));
    if (enough && run.end) ends.push_back(*run.end);
  }
  std::sort(ends.begin(), ends.end());
  return ends;
}

void set_lateness(const Job& job, std::span<const RunEnds> after, std::span<PastRun> runs) {
  const bool timed = has_time(job);
  if (!timed && job.after.empty()) return;
  OwnTime own(job);
  Moment last_start;
  for (PastRun& run : runs) {
    const Moment time = timed ? own.due_at(run.start) : 0;
    const Moment end = job.after.empty() ? 0 : followed_end(after, run.start, last_start);
    // Of a time and an end, the later one let the job start.
    if (time && end) run.late_s = run.start - std::max(*time, *end);
    if (timed) own.run_ended(run);
    last_start = run.start;
  }
}

}  // namespace orv
