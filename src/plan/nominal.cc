#include "plan/nominal.h"

#include <algorithm>

#include "sched/queue_schedule.h"

namespace orv {
namespace {

constexpr std::int64_t kHour = 3600;
constexpr std::int64_t kLongestWindow = std::int64_t{kCronHorizonDays} * 86400;

std::optional<std::int64_t> longest_gap(const CronSpec& schedule, std::int64_t now) {
  std::vector<std::int64_t> times = past_matches(schedule, now, kNominalTimes);
  const std::vector<std::int64_t> next = next_matches(schedule, now, kNominalTimes);
  times.insert(times.end(), next.begin(), next.end());
  std::int64_t longest = 0;
  for (std::size_t i = 1; i < times.size(); ++i) {
    longest = std::max(longest, times[i] - times[i - 1]);
  }
  return longest == 0 ? std::nullopt : std::optional(longest);
}

}  // namespace

std::optional<std::int64_t> next_start(const Job& job, const QueueRecord& record, std::int64_t now,
                                       bool running) {
  if (!job.enabled) return std::nullopt;
  std::int64_t next = record.next_run;
  // A run by hand leaves a time to come as it is: that one is still to be kept.
  if (running && next <= now) next = job.has_schedule ? first_next_run(job, now) : kNever;
  return next > 0 && next != kNever ? std::optional(next) : std::nullopt;
}

std::vector<std::int64_t> next_matches(const CronSpec& schedule, std::int64_t now,
                                       std::size_t most) {
  std::vector<std::int64_t> times;
  while (times.size() < most) {
    now = cron_next_run(schedule, now, false);
    if (now < 1) break;
    times.push_back(now);
  }
  return times;
}

// The search itself only goes forward: it starts ever further back, until what it passes on its way
// to now is enough.
std::vector<std::int64_t> past_matches(const CronSpec& schedule, std::int64_t now,
                                       std::size_t most) {
  const std::vector<std::int64_t> ahead = next_matches(schedule, now, most);
  if (ahead.empty()) return {};  // a date that no year has
  // As much time as lies ahead for so many matches, and a clock change, is mostly enough.
  std::int64_t window = ahead.back() - now + 2 * kHour;
  std::vector<std::int64_t> times;
  while (true) {
    times.clear();
    window = std::min(window, std::max(kLongestWindow, ahead.back() - now));
    std::int64_t at = cron_next_run(schedule, std::max<std::int64_t>(now - window, 0), true);
    for (; at > 0 && at <= now; at = cron_next_run(schedule, at, false)) times.push_back(at);
    if (times.size() >= most || window >= kLongestWindow || window >= now) break;
    window *= 2;
  }
  if (times.size() > most) times.erase(times.begin(), times.end() - static_cast<long>(most));
  return times;
}

std::optional<std::int64_t> LongestGaps::of(const Job& job) {
  if (const auto known = known_.find(&job); known != known_.end()) return known->second;
  std::optional<std::int64_t> longest;
  if (job.has_schedule) longest = longest_gap(job.schedule, now_);
  for (const JobName& name : job.after) {
    const Job* const other = find_job(config_, name.view());
    const std::optional<std::int64_t> gap = other != nullptr ? of(*other) : std::nullopt;
    if (gap) longest = std::max(longest.value_or(0), *gap);
  }
  known_.emplace(&job, longest);
  return longest;
}

}  // namespace orv
