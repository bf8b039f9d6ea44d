#include "plan/clock_changes.h"

#include <time.h>

#include <array>

#include "plan/local_clock.h"

namespace orv {
namespace {

constexpr std::int64_t kHour = 3600;

// The first second in (low, high] whose offset from UTC is that of `high`.
std::int64_t change_between(std::int64_t low, std::int64_t high) {
  const std::int64_t after = utc_offset(high);
  while (high - low > 1) {
    const std::int64_t middle = low + (high - low) / 2;
    (utc_offset(middle) == after ? high : low) = middle;
  }
  return high;
}

bool matches(const CronSpec& cron, const struct tm& at) {
  return cron_allows_date(cron, static_cast<std::size_t>(at.tm_mon) + 1,
                          static_cast<std::size_t>(at.tm_mday),
                          static_cast<std::size_t>(at.tm_wday)) &&
         cron.hour[static_cast<std::size_t>(at.tm_hour)] != 0 &&
         cron.minute[static_cast<std::size_t>(at.tm_min)] != 0;
}

}  // namespace

std::vector<ClockChange> clock_changes(std::int64_t from, std::int64_t to) {
  constexpr std::int64_t kStep = 12 * kHour;  // no zone changes twice within it
  std::vector<ClockChange> changes;
  std::int64_t offset = utc_offset(from);
  for (std::int64_t at = from; at < to; at += kStep) {
    const std::int64_t next = utc_offset(at + kStep);
    if (next != offset) {
      const std::int64_t change = change_between(at, at + kStep);
      changes.push_back({change, change + offset, change + next});
    }
    offset = next;
  }
  return changes;
}

std::vector<std::string> skipped_times(const CronSpec& cron, const ClockChange& change) {
  std::vector<std::string> out;
  for (std::int64_t civil = change.begin; civil < change.end; civil += 60) {
    const time_t seconds = civil;
    struct tm at {};
    ::gmtime_r(&seconds, &at);
    if (!matches(cron, at)) continue;
    std::array<char, 32> text{};
    (void)::strftime(text.data(), text.size(), "%Y-%m-%d %H:%M", &at);
    out.emplace_back(text.data());
    // One finding an hour is enough of a job that runs every few minutes.
    civil += kHour - civil % kHour - 60;
  }
  return out;
}

}  // namespace orv
