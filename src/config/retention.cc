#include "config/retention.h"

#include <time.h>

#include <algorithm>
#include <limits>

#include "common/calendar.h"
#include "common/text.h"

namespace orv {
namespace {

struct RetentionRow {
  char letter;
  RetentionUnit unit;
  std::uint32_t max;    // 100 years
  std::int64_t unit_s;  // 0: the unit is `months` of the calendar
  std::int64_t months;
};
constexpr RetentionRow kRetentionUnits[] = {
    {'d', RetentionUnit::Days, 36500, 86400, 0},
    {'w', RetentionUnit::Weeks, 5200, 604800, 0},
    {'m', RetentionUnit::Months, 1200, 0, 1},
    {'y', RetentionUnit::Years, 100, 0, 12},
};
constexpr std::int64_t kForever = std::numeric_limits<std::int64_t>::max();

// In UTC, so that neither the server's zone nor a clock change moves an expiry. Beyond what a
// calendar can name, nothing expires: a backup is better kept than lost.
std::int64_t add_months(std::int64_t from, std::int64_t months) {
  const time_t start = from;
  struct tm date {};
  if (::gmtime_r(&start, &date) == nullptr) return kForever;
  const std::int64_t month = date.tm_mon + months;
  const std::int64_t year = date.tm_year + month / 12;
  if (year > std::numeric_limits<int>::max()) return kForever;
  date.tm_year = static_cast<int>(year);
  date.tm_mon = static_cast<int>(month % 12);
  date.tm_mday =
      std::min(date.tm_mday, days_in_month(year + 1900, static_cast<std::size_t>(date.tm_mon) + 1));
  return ::timegm(&date);
}

}  // namespace

bool parse_retention(std::string_view text, Retention& out) {
  if (text == "forever") {
    out = Retention{};
    return true;
  }
  // No leading zero: a count of 0 would delete a backup at once.
  if (text.size() < 2 || text.front() == '0') return false;
  std::uint32_t count = 0;
  if (!parse_u32(text.substr(0, text.size() - 1), count)) return false;
  for (const RetentionRow& row : kRetentionUnits) {
    if (text.back() != row.letter) continue;
    if (count > row.max) return false;
    out = {row.unit, count};
    return true;
  }
  return false;
}

std::int64_t add_retention(std::int64_t from, const Retention& retention) {
  for (const RetentionRow& row : kRetentionUnits) {
    if (row.unit != retention.unit) continue;
    if (row.unit_s == 0) return add_months(from, retention.count * row.months);
    std::int64_t until = 0;
    return __builtin_add_overflow(from, retention.count * row.unit_s, &until) ? kForever : until;
  }
  return kForever;
}

bool check_retention_class(std::string_view text) {
  return !text.empty() && text.size() <= kMaxRetentionClass &&
         text.find_first_not_of("abcdefghijklmnopqrstuvwxyz0123456789_-") == std::string_view::npos;
}

}  // namespace orv
