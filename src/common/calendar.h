// The Gregorian calendar, without any clock or time zone.
#ifndef ORV_COMMON_CALENDAR_H_
#define ORV_COMMON_CALENDAR_H_

#include <array>
#include <cstddef>
#include <cstdint>

namespace orv {

[[nodiscard]] constexpr bool is_leap_year(std::int64_t year) {
  return year % 4 == 0 && (year % 100 != 0 || year % 400 == 0);
}

// Days in a month, 28..31. `month` is 1..12.
[[nodiscard]] constexpr int days_in_month(std::int64_t year, std::size_t month) {
  constexpr std::array<int, 13> kDays = {0, 31, 28, 31, 30, 31, 30, 31, 31, 30, 31, 30, 31};
  return kDays[month] + (month == 2 && is_leap_year(year) ? 1 : 0);
}

}  // namespace orv

#endif  // ORV_COMMON_CALENDAR_H_
