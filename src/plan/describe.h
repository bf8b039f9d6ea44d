// Words and columns for people: schedules in plain language, times, durations.
#ifndef ORV_PLAN_DESCRIBE_H_
#define ORV_PLAN_DESCRIBE_H_

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

#include "config/cron.h"

namespace orv {

// "at 02:30, on Monday to Friday, in January".
[[nodiscard]] std::string schedule_in_words(const CronSpec& cron);

// `text` as it can be put on a terminal or into a document: well-formed UTF-8 stays as it is,
// control characters and all other bytes become "\x1b". Names and arguments may hold any byte.
[[nodiscard]] std::string printable(std::string_view text);

// "2026-10-25 02:30:00" in local time, the zone after it ("CEST") when the clock shows that twice.
[[nodiscard]] std::string clock_text(std::int64_t time);

// "3h 05m", "12m 04s", "9s".
[[nodiscard]] std::string duration_text(std::int64_t seconds);
// The same in a table; "-" when it is not known.
[[nodiscard]] std::string duration_cell(std::optional<std::int64_t> seconds);

}  // namespace orv

#endif  // ORV_PLAN_DESCRIBE_H_
