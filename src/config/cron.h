// Cron expressions and the times they name.
//
// Three rules differ from the usual cron, on purpose: a step on a single number selects that number
// only ("5/15" is 5); day of month and day of week must both match; and a search looks at most
// kCronHorizonDays days ahead. Names of months and days are not accepted. All calendar work is in
// the server's local time zone, through localtime(3) and mktime(3).
#ifndef ORV_CONFIG_CRON_H_
#define ORV_CONFIG_CRON_H_

#include <array>
#include <cstddef>
#include <cstdint>
#include <span>
#include <string_view>

namespace orv {

inline constexpr int kCronHorizonDays = 2929;     // dates tried, start's own included
inline constexpr std::size_t kMaxCronText = 255;  // bytes of the longest expression
inline constexpr std::int64_t kCronNoRun = -1;    // no date within the horizon

// One flag byte per value, 1 = allowed. The bytes in this order feed a job's schedule fingerprint.
struct CronSpec {
  std::array<std::uint8_t, 60> minute{};
  std::array<std::uint8_t, 24> hour{};
  std::array<std::uint8_t, 32> day_of_month{};  // 1..31 used
  std::array<std::uint8_t, 13> month{};         // 1..12 used
  std::array<std::uint8_t, 8> day_of_week{};    // 0 and 7 are Sunday
};
static_assert(sizeof(CronSpec) == 137);

// Parses "minute hour day-of-month month day-of-week". False with a message, `out` then as it was.
[[nodiscard]] bool cron_parse(std::string_view text, CronSpec& out, std::span<char> err);

// Parses one field whose values lie in low..high and sets the flag of each value that it selects.
// False when any item is at fault, `flags` then partly set.
[[nodiscard]] bool cron_parse_field(std::string_view text, unsigned low, unsigned high,
                                    std::span<std::uint8_t> flags);

// Whether the fields allow a date: month 1..12, day 1..31, and the weekday that it is, 0 for
// Sunday.
[[nodiscard]] bool cron_allows_date(const CronSpec& cron, std::size_t month, std::size_t day,
                                    std::size_t weekday);

// The first time at or after the minute of `now` (`include_current_minute`) or after that minute,
// in Unix seconds; kCronNoRun when no date within the horizon has one. Local times that a
// daylight-saving change skips are passed over; of a repeated hour the first pass counts.
[[nodiscard]] std::int64_t cron_next_run(const CronSpec& cron, std::int64_t now,
                                         bool include_current_minute);

}  // namespace orv

#endif  // ORV_CONFIG_CRON_H_
