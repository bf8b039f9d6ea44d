#include "config/cron.h"

#include <time.h>

#include <array>
#include <cstdlib>
#include <optional>
#include <vector>

#include "common/message.h"
#include "common/text.h"

namespace orv {
namespace {

struct FieldRow {
  const char* name;
  unsigned low;
  unsigned high;
};
constexpr std::array<FieldRow, 5> kFields = {{
    {"minute", 0, 59},
    {"hour", 0, 23},
    {"day-of-month", 1, 31},
    {"month", 1, 12},
    {"day-of-week", 0, 7},
}};

struct ItemRange {
  std::uint64_t first = 0;
  std::uint64_t last = 0;
  std::uint64_t step = 1;
};

// Decimal digits of any length. A number too large for 64 bits is larger than any bound, too.
bool parse_number(std::string_view text, std::uint64_t& out) {
  if (text.empty()) return false;
  for (const char c : text) {
    if (!is_digit(c)) return false;
  }
  if (!parse_u64(text, out)) out = UINT64_MAX;
  return true;
}

bool parse_item(std::string_view item, unsigned low, unsigned high, ItemRange& out) {
  const std::size_t slash = item.find('/');
  if (slash != std::string_view::npos) {
    if (!parse_number(item.substr(slash + 1), out.step) || out.step < 1) return false;
    item = item.substr(0, slash);
  }
  const std::size_t dash = item.find('-');
  if (item == "*") {
    out.first = low;
    out.last = high;
  } else if (dash != std::string_view::npos) {
    if (!parse_number(item.substr(0, dash), out.first) ||
        !parse_number(item.substr(dash + 1), out.last)) {
      return false;
    }
  } else {
    if (!parse_number(item, out.first)) return false;
    out.last = out.first;  // a step on a single number has no effect
  }
  return low <= out.first && out.first <= out.last && out.last <= high;
}

std::vector<std::string_view> split_fields(std::string_view text) {
  std::vector<std::string_view> fields;
  while (true) {
    const std::size_t start = text.find_first_not_of(" \t");
    if (start == std::string_view::npos) return fields;
    const std::size_t end = text.find_first_of(" \t", start);
    fields.push_back(text.substr(start, end - start));
    if (end == std::string_view::npos) return fields;
    text.remove_prefix(end);
  }
}

// A civil date with what the day fields ask about.
struct CivilDate {
  int month;  // 1..12
  int day;    // 1..31
  int weekday;  // 0 is Sunday
};

// Walks civil dates one day at a time, without the C library. Days are counted from 1970-01-01
// (proleptic Gregorian calendar).
class CivilCalendar {
 public:
  explicit CivilCalendar(std::int64_t day_number) : number_(day_number) {
    // Shifted so that a year begins in March and the leap day is its last.
    const std::int64_t z = day_number + 719468;
    const std::int64_t era = (z >= 0 ? z : z - 146096) / 146097;
    const std::int64_t of_era = z - era * 146097;
    const std::int64_t year_of_era =
        (of_era - of_era / 1460 + of_era / 36524 - of_era / 146096) / 365;
    const std::int64_t of_year = of_era - (365 * year_of_era + year_of_era / 4 - year_of_era / 100);
    const std::int64_t shifted_month = (5 * of_year + 2) / 153;
    day_ = static_cast<int>(of_year - (153 * shifted_month + 2) / 5) + 1;
    month_ = static_cast<int>(shifted_month < 10 ? shifted_month + 3 : shifted_month - 9);
    year_ = year_of_era + era * 400 + (month_ <= 2 ? 1 : 0);
  }

  [[nodiscard]] CivilDate date() const {
    return {month_, day_, static_cast<int>(((number_ + 4) % 7 + 7) % 7)};
  }

  void advance() {
    ++number_;
    if (++day_ <= days_in_month()) return;
    day_ = 1;
    if (++month_ <= 12) return;
    month_ = 1;
    ++year_;
  }

 private:
  [[nodiscard]] int days_in_month() const {
    static constexpr std::array<int, 13> kDays = {0,  31, 28, 31, 30, 31, 30,
                                                  31, 31, 30, 31, 30, 31};
    const bool leap = (year_ % 4 == 0 && year_ % 100 != 0) || year_ % 400 == 0;
    return kDays[static_cast<std::size_t>(month_)] + (month_ == 2 && leap ? 1 : 0);
  }

  std::int64_t number_;
  std::int64_t year_;
  int month_;
  int day_;
};

std::int64_t day_number_of(const struct tm& local) {
  struct tm date {};
  date.tm_year = local.tm_year;
  date.tm_mon = local.tm_mon;
  date.tm_mday = local.tm_mday;
  const std::int64_t seconds = ::timegm(&date);  // midnight, so that the division is exact
  return seconds / 86400;
}

bool date_qualifies(const CronSpec& spec, const CivilDate& date) {
  const auto weekday = static_cast<std::size_t>(date.weekday);
  return spec.month[static_cast<std::size_t>(date.month)] != 0 &&
         spec.day_of_month[static_cast<std::size_t>(date.day)] != 0 &&
         (spec.day_of_week[weekday] != 0 || (weekday == 0 && spec.day_of_week[7] != 0));
}

CivilDate date_of(const struct tm& local) {
  return {local.tm_mon + 1, local.tm_mday, local.tm_wday};
}

// The time of one local minute of `day`, when there is such a minute and it is not before `start`.
std::optional<std::int64_t> candidate(const struct tm& day, int hour, int minute,
                                      std::int64_t start) {
  struct tm local {};
  local.tm_year = day.tm_year;
  local.tm_mon = day.tm_mon;
  local.tm_mday = day.tm_mday;
  local.tm_hour = hour;
  local.tm_min = minute;
  local.tm_isdst = -1;
  // mktime() leaves in `local` what its result reads back as.
  const time_t time = ::mktime(&local);
  if (time == -1 || time < start) return std::nullopt;
  const bool exists = local.tm_hour == hour && local.tm_min == minute &&
                      local.tm_mday == day.tm_mday && local.tm_mon == day.tm_mon;
  return exists ? std::optional<std::int64_t>(time) : std::nullopt;
}

// The first candidate of a day, from the given hour and minute on.
std::optional<std::int64_t> first_in_day(const CronSpec& spec, const struct tm& day, int hour,
                                         int minute, std::int64_t start) {
  for (; hour < 24; ++hour, minute = 0) {
    if (spec.hour[static_cast<std::size_t>(hour)] == 0) continue;
    for (int m = minute; m < 60; ++m) {
      if (spec.minute[static_cast<std::size_t>(m)] == 0) continue;
      if (const auto time = candidate(day, hour, m, start)) return time;
    }
  }
  return std::nullopt;
}

// Midnight of start's date plus `offset` days, read back. mktime() keeps a guess of the offset from UTC
// between calls: asked for midnight first and for later times in order, it settles on the first pass
// of an hour that occurs twice.
bool local_midnight(const struct tm& start, int offset, struct tm& day) {
  day = {};
  day.tm_year = start.tm_year;
  day.tm_mon = start.tm_mon;
  day.tm_mday = start.tm_mday + offset;
  day.tm_isdst = -1;
  return ::mktime(&day) != -1;
}

}  // namespace

int cron_parse_field(std::string_view text, unsigned low, unsigned high,
                     std::span<std::uint8_t> flags) {
  bool any = false;
  std::string_view item;
  while (next_list_item(text, item)) {
    ItemRange range;
    if (!parse_item(item, low, high, range)) return -1;
    // A step beyond the range selects the first value; adding it could wrap.
    for (std::uint64_t value = range.first;; value += range.step) {
      flags[value] = 1;
      if (range.step > range.last - value) break;
    }
    any = true;
  }
  return any ? 0 : -1;
}

int cron_parse(std::string_view text, CronSpec& out, std::span<char> err) {
  if (text.size() > kMaxCronText) return fail(err, "cron expression too long");
  const std::vector<std::string_view> fields = split_fields(text);
  if (fields.size() != kFields.size()) {
    return fail(err,
                "expected 5 fields (minute hour day-of-month month day-of-week), got %d",
                static_cast<int>(fields.size()));
  }
  CronSpec spec;
  const std::array<std::span<std::uint8_t>, 5> flags = {spec.minute, spec.hour, spec.day_of_month,
                                                        spec.month, spec.day_of_week};
  for (std::size_t i = 0; i < kFields.size(); ++i) {
    if (cron_parse_field(fields[i], kFields[i].low, kFields[i].high, flags[i]) != 0) {
      return fail(err, "invalid %s field '%.*s'", kFields[i].name,
                  static_cast<int>(fields[i].size()), fields[i].data());
    }
  }
  out = spec;
  return 0;
}

std::int64_t cron_next_run(const CronSpec& spec, std::int64_t now, bool include_current_minute) {
  const std::int64_t past_minute = ((now % 60) + 60) % 60;
  const std::int64_t start = now - past_minute + (include_current_minute ? 0 : 60);
  const time_t start_time = start;
  struct tm first {};
  if (::localtime_r(&start_time, &first) == nullptr) return kCronNoRun;

  // A zone that skips its midnight, or a whole day, makes a date read back as its neighbour. So a day
  // is passed over without asking the C library only when neither it nor its neighbours qualify, and
  // every other day is judged by the date that is read back.
  CivilCalendar calendar(day_number_of(first) - 1);
  bool before = date_qualifies(spec, calendar.date());
  calendar.advance();
  bool on = date_qualifies(spec, calendar.date());
  for (int offset = 0; offset < kCronHorizonDays; ++offset) {
    calendar.advance();
    const bool after = date_qualifies(spec, calendar.date());
    const bool worth_trying = before || on || after;
    before = on;
    on = after;
    struct tm day {};
    if (!worth_trying || !local_midnight(first, offset, day)) continue;
    if (!date_qualifies(spec, date_of(day))) continue;
    const int hour = offset == 0 ? first.tm_hour : 0;
    const int minute = offset == 0 ? first.tm_min : 0;
    if (const auto time = first_in_day(spec, day, hour, minute, start)) return *time;
  }
  return kCronNoRun;
}

}  // namespace orv
