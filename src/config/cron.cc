#include "config/cron.h"

#include <time.h>

#include <array>
#include <ctime>
#include <limits>
#include <optional>

#include "common/calendar.h"
#include "common/message.h"
#include "common/text.h"

namespace orv {
namespace {

constexpr std::size_t kFields = 5;

// Decimal digits only. A number beyond 32 bits stays at the largest one: it is out of every bound
// and as a step it passes every end, so it never wraps into something valid.
std::optional<std::uint32_t> read_number(std::string_view text) {
  if (text.empty()) return std::nullopt;
  constexpr std::uint32_t kLargest = std::numeric_limits<std::uint32_t>::max();
  std::uint64_t value = 0;
  for (const char c : text) {
    if (!is_digit(c)) return std::nullopt;
    value = value * 10 + static_cast<std::uint64_t>(c - '0');
    if (value > kLargest) value = kLargest;
  }
  return static_cast<std::uint32_t>(value);
}

struct Range {
  std::uint64_t first = 0;
  std::uint64_t last = 0;
};

// "*", "a-b" or "n", within low..high.
std::optional<Range> read_range(std::string_view text, unsigned low, unsigned high) {
  if (text == "*") return Range{low, high};
  const std::size_t dash = text.find('-');
  const auto first = read_number(text.substr(0, dash));
  const auto last = dash == std::string_view::npos ? first : read_number(text.substr(dash + 1));
  if (!first || !last || *first < low || *last > high || *first > *last) return std::nullopt;
  return Range{*first, *last};
}

bool select_item(std::string_view item, unsigned low, unsigned high,
                 std::span<std::uint8_t> flags) {
  std::uint64_t step = 1;
  const std::size_t slash = item.find('/');
  if (slash != std::string_view::npos) {
    const auto number = read_number(item.substr(slash + 1));
    if (!number || *number < 1) return false;
    step = *number;
  }
  const auto range = read_range(item.substr(0, slash), low, high);
  if (!range) return false;
  for (std::uint64_t value = range->first; value <= range->last; value += step) flags[value] = 1;
  return true;
}

// Takes the next field off the front of `rest`; false when only separators are left.
bool next_field(std::string_view& rest, std::string_view& field) {
  constexpr std::string_view kSeparators = " \t";
  const std::size_t begin = rest.find_first_not_of(kSeparators);
  if (begin == std::string_view::npos) return false;
  rest.remove_prefix(begin);
  field = rest.substr(0, rest.find_first_of(kSeparators));
  rest.remove_prefix(field.size());
  return true;
}

// A date of the calendar, without any clock. The year is wide enough for whatever localtime()
// gives.
struct CivilDate {
  std::int64_t year = 0;
  std::size_t month = 1;    // 1..12
  std::size_t day = 1;      // 1..31
  std::size_t weekday = 0;  // 0 is Sunday
};

CivilDate date_of(const std::tm& local) {
  return {std::int64_t{local.tm_year} + 1900, static_cast<std::size_t>(local.tm_mon) + 1,
          static_cast<std::size_t>(local.tm_mday), static_cast<std::size_t>(local.tm_wday)};
}

CivilDate day_after(const CivilDate& date) {
  CivilDate next = date;
  next.weekday = (date.weekday + 1) % 7;
  if (++next.day <= static_cast<std::size_t>(days_in_month(date.year, date.month))) return next;
  next.day = 1;
  if (++next.month <= 12) return next;
  next.month = 1;
  ++next.year;
  return next;
}

bool qualifies(const CronSpec& cron, const CivilDate& date) {
  return cron_allows_date(cron, date.month, date.day, date.weekday);
}

std::optional<std::tm> local_time(std::int64_t at) {
  const std::time_t seconds = at;
  std::tm local{};
  if (::localtime_r(&seconds, &local) == nullptr) return std::nullopt;
  return local;
}

// The time of the wall clock that `local` shows, and normalises `local` to it.
std::optional<std::int64_t> ask_mktime(std::tm& local) {
  local.tm_isdst = -1;
  local.tm_wday = -1;  // -1 is also a time; what mktime() leaves untouched on failure is this
  const std::time_t at = std::mktime(&local);
  if (at == -1 && local.tm_wday == -1) return std::nullopt;
  return at;
}

// A day that is tried: its midnight, and what the local time of that midnight reads back as.
struct TriedDay {
  std::int64_t midnight = 0;
  std::tm local{};
};

std::optional<TriedDay> ask_midnight(const std::tm& start_local, int days) {
  TriedDay day;
  day.local.tm_year = start_local.tm_year;
  day.local.tm_mon = start_local.tm_mon;
  day.local.tm_mday = start_local.tm_mday + days;
  const auto midnight = ask_mktime(day.local);
  if (!midnight) return std::nullopt;
  day.midnight = *midnight;
  return day;
}

bool begins_at_midnight(const TriedDay& day) {
  return day.local.tm_hour == 0 && day.local.tm_min == 0 && day.local.tm_sec == 0;
}

// Whether the day's midnight is what was asked for and has the offset of the day before. Then it
// neither is missing nor comes twice, and every way to ask for it gives this answer. Of a date that
// is not wanted it is enough that it is not another one.
bool is_plain_midnight(const TriedDay& day, const CivilDate& civil, bool wanted) {
  if (!begins_at_midnight(day) || static_cast<std::size_t>(day.local.tm_mday) != civil.day) {
    return false;
  }
  if (!wanted) return true;
  const auto day_before = local_time(day.midnight - 86400);
  return day_before && day_before->tm_gmtoff == day.local.tm_gmtoff;
}

// The first day that is tried is start's own: its midnight is mostly as far away as the clock
// shows, and mktime(), which costs several conversions, need not be asked.
std::optional<TriedDay> midnight_before(std::int64_t start, const std::tm& start_local) {
  const std::int64_t since_midnight = start_local.tm_hour * 3600 + start_local.tm_min * 60;
  const auto local = local_time(start - since_midnight);
  if (!local || local->tm_gmtoff != start_local.tm_gmtoff) return std::nullopt;
  return TriedDay{start - since_midnight, *local};
}

// Where a midnight is missing or comes twice, mktime() answers by the offset that it met in its
// last call, whatever that was. Asking for the day before first settles that, and makes the first
// pass of a repeated hour win, for the day's later times as well. It is only done where it matters.
std::optional<TriedDay> try_day(std::int64_t start, const std::tm& start_local, int days,
                                const CivilDate& civil, bool wanted) {
  auto day = days == 0 ? midnight_before(start, start_local) : std::nullopt;
  if (day && is_plain_midnight(*day, civil, wanted)) return day;
  day = ask_midnight(start_local, days);
  if (day && is_plain_midnight(*day, civil, wanted)) return day;
  (void)ask_midnight(start_local, days - 1);  // only for what mktime() remembers of it
  return ask_midnight(start_local, days);
}

// The time of hour:minute on `day`; no value when the day does not have it.
std::optional<std::int64_t> time_on_day(const TriedDay& day, int hour, int minute) {
  if (begins_at_midnight(day)) {
    // As long as the offset is midnight's, this is what mktime() would try, and accept, first.
    const std::int64_t at = day.midnight + std::int64_t{hour} * 3600 + std::int64_t{minute} * 60;
    const auto local = local_time(at);
    if (local && local->tm_gmtoff == day.local.tm_gmtoff) return at;
  }
  std::tm local{};
  local.tm_year = day.local.tm_year;
  local.tm_mon = day.local.tm_mon;
  local.tm_mday = day.local.tm_mday;
  local.tm_hour = hour;
  local.tm_min = minute;
  const auto at = ask_mktime(local);
  if (!at || local.tm_hour != hour || local.tm_min != minute ||
      local.tm_mday != day.local.tm_mday || local.tm_mon != day.local.tm_mon) {
    return std::nullopt;
  }
  return at;
}

struct ClockTime {
  std::size_t hour = 0;
  std::size_t minute = 0;
};

// The first allowed time of a day at or after `from`.
std::optional<ClockTime> next_clock_time(const CronSpec& cron, ClockTime from) {
  for (; from.hour < cron.hour.size(); ++from.hour, from.minute = 0) {
    if (cron.hour[from.hour] == 0) continue;
    for (; from.minute < cron.minute.size(); ++from.minute) {
      if (cron.minute[from.minute] != 0) return from;
    }
  }
  return std::nullopt;
}

std::optional<std::int64_t> search_day(const CronSpec& cron, const TriedDay& day, ClockTime from,
                                       std::int64_t start) {
  while (const auto clock = next_clock_time(cron, from)) {
    const auto at =
        time_on_day(day, static_cast<int>(clock->hour), static_cast<int>(clock->minute));
    if (at && *at >= start) return at;
    from = {clock->hour, clock->minute + 1};
  }
  return std::nullopt;
}

// The next time of start's own day, while the clock's offset is the same from a day before until
// then: that day's midnight neither is missing nor comes twice, and every way to look for the time
// finds this one. Spares most of what the search asks of the C library.
std::optional<std::int64_t> plainly_later_today(const CronSpec& cron, std::int64_t start,
                                                const std::tm& start_local) {
  const ClockTime from{static_cast<std::size_t>(start_local.tm_hour),
                       static_cast<std::size_t>(start_local.tm_min)};
  const auto clock = next_clock_time(cron, from);
  if (!clock || start_local.tm_sec != 0 || !qualifies(cron, date_of(start_local))) {
    return std::nullopt;
  }
  const auto minute_of_day = [](const ClockTime& time) { return time.hour * 60 + time.minute; };
  const std::size_t minutes = minute_of_day(*clock) - minute_of_day(from);
  const std::int64_t at = start + static_cast<std::int64_t>(minutes) * 60;
  for (const std::int64_t other : {start - 86400, at}) {
    const auto local = local_time(other);
    if (!local || local->tm_gmtoff != start_local.tm_gmtoff) return std::nullopt;
  }
  return at;
}

// A date whose midnight is missing may read back as a neighbour. So a date is passed over unasked
// only when neither it nor one of its neighbours qualifies; start's own date, when it has no
// allowed time left.
std::int64_t search(const CronSpec& cron, std::int64_t start, const std::tm& start_local) {
  ClockTime from{static_cast<std::size_t>(start_local.tm_hour),
                 static_cast<std::size_t>(start_local.tm_min)};
  CivilDate civil = date_of(start_local);
  bool before = true;
  bool here = qualifies(cron, civil);
  for (int days = 0; days < kCronHorizonDays; ++days, from = ClockTime{}) {
    const CivilDate next = day_after(civil);
    const bool after = qualifies(cron, next);
    if ((before || here || after) && next_clock_time(cron, from)) {
      const auto day = try_day(start, start_local, days, civil, here);
      if (day && qualifies(cron, date_of(day->local))) {
        if (const auto at = search_day(cron, *day, from, start)) return *at;
      }
    }
    before = here;
    here = after;
    civil = next;
  }
  return kCronNoRun;
}

}  // namespace

bool cron_parse_field(std::string_view text, unsigned low, unsigned high,
                      std::span<std::uint8_t> flags) {
  std::string_view item;
  bool any = false;
  while (next_list_item(text, item)) {
    if (!select_item(item, low, high, flags)) return false;
    any = true;
  }
  return any;
}

bool cron_parse(std::string_view text, CronSpec& out, std::span<char> err) {
  if (text.size() > kMaxCronText) return refuse(err, "cron expression too long");
  // All fields are counted before one is read: a field too many or too few shifts those after it.
  std::array<std::string_view, kFields> fields;
  std::string_view field;
  std::size_t count = 0;
  for (std::string_view rest = text; next_field(rest, field); ++count) {
    if (count < kFields) fields[count] = field;
  }
  if (count != kFields) {
    return refuse(err, "expected 5 fields (minute hour day-of-month month day-of-week), got %d",
                  static_cast<int>(count));
  }

  struct FieldRow {
    const char* name;
    unsigned low;
    unsigned high;
    std::span<std::uint8_t> flags;
  };
  CronSpec cron;  // `out` stays whole while a later field may still be refused
  const std::array<FieldRow, kFields> rows = {{
      {"minute", 0, 59, cron.minute},
      {"hour", 0, 23, cron.hour},
      {"day-of-month", 1, 31, cron.day_of_month},
      {"month", 1, 12, cron.month},
      {"day-of-week", 0, 7, cron.day_of_week},
  }};
  for (std::size_t i = 0; i < kFields; ++i) {
    const FieldRow& row = rows[i];
    if (!cron_parse_field(fields[i], row.low, row.high, row.flags)) {
      return refuse(err, "invalid %s field '%.*s'", row.name, static_cast<int>(fields[i].size()),
                    fields[i].data());
    }
  }
  out = cron;
  return true;
}

bool cron_allows_date(const CronSpec& cron, std::size_t month, std::size_t day,
                      std::size_t weekday) {
  return cron.month[month] != 0 && cron.day_of_month[day] != 0 &&
         (cron.day_of_week[weekday] != 0 || (weekday == 0 && cron.day_of_week[7] != 0));
}

std::int64_t cron_next_run(const CronSpec& cron, std::int64_t now, bool include_current_minute) {
  // Beyond this the arithmetic below could overflow; no calendar reaches that far.
  constexpr std::int64_t kFarthest = std::numeric_limits<std::int64_t>::max() / 2;
  if (now > kFarthest || now < -kFarthest) return kCronNoRun;
  const std::int64_t into_minute = ((now % 60) + 60) % 60;
  const std::int64_t start = now - into_minute + (include_current_minute ? 0 : 60);

  // localtime_r() alone does not take up a change of the system's time zone.
  ::tzset();
  const auto start_local = local_time(start);
  if (!start_local) return kCronNoRun;
  if (const auto at = plainly_later_today(cron, start, *start_local)) return *at;
  return search(cron, start, *start_local);
}

}  // namespace orv
