// Words and columns for people: schedules in plain language, times, durations.
#ifndef ORV_PLAN_DESCRIBE_H_
#define ORV_PLAN_DESCRIBE_H_

#include <cstdint>
#include <string>

#include "config/cron.h"

namespace orv {

// "at 02:30, on Monday to Friday, in January".
[[nodiscard]] std::string schedule_in_words(const CronSpec& cron);

// "3h 05m", "12m 04s", "9s".
[[nodiscard]] std::string duration_text(std::int64_t seconds);

}  // namespace orv

#endif  // ORV_PLAN_DESCRIBE_H_
