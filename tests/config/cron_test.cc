#include "config/cron.h"

#include <gtest/gtest.h>
#include <time.h>

#include <array>
#include <random>
#include <string>
#include <vector>

#include "support/parsed.h"
#include "support/support.h"

namespace orv {
namespace {

using test::cron;
using test::ScopedTimeZone;

std::string message_of(const std::string& text) {
  CronSpec fields;
  std::array<char, 512> err{};
  return cron_parse(text, fields, err) ? "" : err.data();
}

std::int64_t local(const char* text) {
  struct tm at {};
  EXPECT_NE(::strptime(text, "%Y-%m-%d %H:%M:%S", &at), nullptr);
  at.tm_isdst = -1;
  return ::mktime(&at);
}

std::string shown(std::int64_t time) {
  if (time == kCronNoRun) return "never";
  const time_t seconds = time;
  struct tm at {};
  ::localtime_r(&seconds, &at);
  std::array<char, 32> text{};
  (void)::strftime(text.data(), text.size(), "%Y-%m-%d %H:%M", &at);
  return text.data();
}

time_t midnight_of(const struct tm& first, int offset, struct tm& day) {
  day = {};
  day.tm_year = first.tm_year;
  day.tm_mon = first.tm_mon;
  day.tm_mday = first.tm_mday + offset;
  day.tm_isdst = -1;
  return ::mktime(&day);
}

// The search in its plainest form: every date of the horizon goes through mktime() and is judged by
// what reads back. The day before start's is asked first: mktime() remembers its last offset.
std::int64_t literal_next_run(const CronSpec& fields, std::int64_t now, bool include) {
  const std::int64_t start = now - now % 60 + (include ? 0 : 60);
  const time_t start_time = start;
  struct tm first {};
  ::localtime_r(&start_time, &first);
  for (int d = -1; d < kCronHorizonDays; ++d) {
    struct tm day {};
    const time_t midnight = midnight_of(first, d, day);
    if (d < 0) continue;
    if (midnight == -1) continue;
    ::localtime_r(&midnight, &day);
    const auto weekday = static_cast<std::size_t>(day.tm_wday);
    if (fields.month[static_cast<std::size_t>(day.tm_mon) + 1] == 0 ||
        fields.day_of_month[static_cast<std::size_t>(day.tm_mday)] == 0 ||
        (fields.day_of_week[weekday] == 0 && !(weekday == 0 && fields.day_of_week[7] != 0))) {
      continue;
    }
    for (int h = d == 0 ? first.tm_hour : 0; h < 24; ++h) {
      if (fields.hour[static_cast<std::size_t>(h)] == 0) continue;
      for (int m = d == 0 && h == first.tm_hour ? first.tm_min : 0; m < 60; ++m) {
        if (fields.minute[static_cast<std::size_t>(m)] == 0) continue;
        struct tm at {};
        at.tm_year = day.tm_year;
        at.tm_mon = day.tm_mon;
        at.tm_mday = day.tm_mday;
        at.tm_hour = h;
        at.tm_min = m;
        at.tm_isdst = -1;
        const time_t time = ::mktime(&at);
        struct tm back {};
        if (time == -1 || ::localtime_r(&time, &back) == nullptr) continue;
        if (back.tm_hour == h && back.tm_min == m && back.tm_mday == day.tm_mday &&
            back.tm_mon == day.tm_mon && time >= start) {
          return time;
        }
      }
    }
  }
  return kCronNoRun;
}

TEST(CronField, SelectsValuesOrIsRefused) {
  const std::vector<std::pair<const char*, std::vector<unsigned>>> cases = {
      {"*/15", {0, 15, 30, 45}},
      {"5/15", {5}},
      {"10-50/20", {10, 30, 50}},
      {"1,,2,", {1, 2}},
      {"7-7", {7}},
      {"58-59", {58, 59}},
      {"*/59", {0, 59}},
      {"*/60", {0}},
      {"*/4294967297", {0}},
      {"3/18446744073709551617", {3}},
      {"0-59/18446744073709551615", {0}},
  };
  for (const auto& [text, values] : cases) {
    SCOPED_TRACE(text);
    std::array<std::uint8_t, 60> expected{}, flags{};
    for (const unsigned value : values) expected[value] = 1;
    EXPECT_TRUE(cron_parse_field(text, 0, 59, flags));
    EXPECT_EQ(flags, expected);
  }
  for (const char* text : {"",      ",",     "60",   "5-",         "-5",
                           "5-4",   "1-60",  "*/0",  "*/",         "*/a",
                           "1/2/3", "1-2-3", "jan",  "+5",         "* ",
                           "**",    "*-5",   "1, 2", "4294967297", "18446744073709551617",
                           "1/00",  "0x5"}) {
    std::array<std::uint8_t, 60> flags{};
    EXPECT_FALSE(cron_parse_field(text, 0, 59, flags)) << text;
  }
}

TEST(CronExpression, NamesTheFieldAtFault) {
  const std::string fields = "expected 5 fields (minute hour day-of-month month day-of-week), got ";
  const std::vector<std::pair<std::string, std::string>> cases = {
      {"  0\t1 * * 0-7 ", ""},
      {"", fields + "0"},
      {"* * * *", fields + "4"},
      {"* * * * * *", fields + "6"},
      {"60 * * * *", "invalid minute field '60'"},
      {"* 24 * * *", "invalid hour field '24'"},
      {"* * 0 * *", "invalid day-of-month field '0'"},
      {"* * * 1,13 *", "invalid month field '1,13'"},
      {"* * * * 8", "invalid day-of-week field '8'"},
      {std::string(256, ' '), "cron expression too long"},
      {"* * * * *" + std::string(246, ' '), ""},
  };
  for (const auto& [text, message] : cases) EXPECT_EQ(message_of(text), message) << text;
}

TEST(CronNextRun, FollowsTheFields) {
  const ScopedTimeZone zone("UTC");
  static constexpr struct {
    const char *schedule, *now, *next;
  } kCases[] = {
      {"* * * * *", "2026-03-01 10:00:59", "2026-03-01 10:01"},
      {"30 2 * * *", "2026-03-01 02:30:00", "2026-03-02 02:30"},
      {"0 0 13 * 5", "2026-03-14 00:00:00", "2026-11-13 00:00"},  // both must match
      {"0 0 * * 7", "2026-03-02 00:00:00", "2026-03-08 00:00"},
      {"59 23 31 12 *", "2026-12-31 23:59:00", "2027-12-31 23:59"},
      {"0 0 29 2 *", "2026-01-01 00:00:00", "2028-02-29 00:00"},
      {"0 0 29 2 *", "2096-03-01 00:00:00", "2104-02-29 00:00"},  // 2100 is no leap year
      {"0 0 30 2 *", "2026-01-01 00:00:00", "never"},
  };
  for (const auto& c : kCases) {
    SCOPED_TRACE(c.schedule);
    EXPECT_EQ(shown(cron_next_run(cron(c.schedule), local(c.now), false)), c.next);
  }
  const std::int64_t now = local("2026-03-01 10:00:30");
  EXPECT_EQ(cron_next_run(cron("* * * * *"), now, true), local("2026-03-01 10:00:00"));
  EXPECT_EQ(cron_next_run(cron("* * * * *"), -90, false), -60);  // minutes before 1970, too
  EXPECT_EQ(cron_next_run(cron("* * * * *"), INT64_MAX, false), kCronNoRun);
}

TEST(CronNextRun, ClockChanges) {
  const ScopedTimeZone zone("Europe/Berlin");
  const CronSpec nightly = cron("30 2 * * *");
  // 02:30 does not exist on 28 March 2027.
  EXPECT_EQ(shown(cron_next_run(nightly, local("2027-03-27 12:00:00"), false)), "2027-03-29 02:30");
  // 02:30 occurs twice on 31 October 2027: the first pass (CEST, 00:30 UTC) counts, and only it.
  const std::int64_t first = cron_next_run(nightly, local("2027-10-30 12:00:00"), false);
  EXPECT_EQ(first % 86400, 1800);
  EXPECT_EQ(shown(cron_next_run(nightly, first, false)), "2027-11-01 02:30");
  // From the second pass of 02:00 a candidate of the first pass is given up.
  EXPECT_EQ(shown(cron_next_run(nightly, first + 1800, false)), "2027-11-01 02:30");
}

// The plain search, over zones whose midnight or whole day is missing on some date.
TEST(CronNextRun, AgreesWithTheLiteralSearch) {
  struct Zone {
    const char* name;
    const char* odd_day;
  };
  static constexpr Zone kZones[] = {
      {"America/Sao_Paulo", "2018-11-04 12:00:00"},   {"Africa/Cairo", "2010-04-30 12:00:00"},
      {"Atlantic/Azores", "2024-03-31 12:00:00"},     {"America/Havana", "2024-03-10 12:00:00"},
      {"America/Havana", "2024-11-03 12:00:00"},      {"Atlantic/Azores", "2024-10-27 12:00:00"},
      {"Asia/Kathmandu", "1986-01-01 12:00:00"},      {"Pacific/Apia", "2011-12-30 12:00:00"},
      {"Europe/Berlin", "2027-10-31 12:00:00"},       {"America/New_York", "2027-03-14 12:00:00"},
      {"Australia/Lord_Howe", "2027-04-04 12:00:00"}, {"UTC", "2028-02-29 12:00:00"}};
  static constexpr const char* kMinutes[] = {"0", "30", "*/15", "59", "*"};
  static constexpr const char* kHours[] = {"0", "1", "2", "23", "*/6", "*"};
  static constexpr const char* kDays[] = {"*", "29", "30", "1", "31", "4,10"};
  static constexpr const char* kMonths[] = {"*", "12", "3,4,10,11", "1", "2"};
  static constexpr const char* kWeekdays[] = {"*", "0", "7", "5", "1-5"};
  std::mt19937 random(20261005);  // the same sample every time
  const auto pick = [&](const auto& list) { return std::string(list[random() % std::size(list)]); };
  for (const Zone& zone : kZones) {
    const ScopedTimeZone scoped(zone.name);
    const std::int64_t odd = local(zone.odd_day);
    for (int i = 0; i < 120; ++i) {
      const std::string text = pick(kMinutes) + " " + pick(kHours) + " " + pick(kDays) + " " +
                               pick(kMonths) + " " + pick(kWeekdays);
      const std::int64_t spread = std::int64_t{4} * 86400;
      const std::int64_t now = odd - spread + static_cast<std::int64_t>(random() % (2 * spread));
      const CronSpec fields = cron(text);
      const std::int64_t expected = literal_next_run(fields, now, i % 2 == 0);
      // What mktime() was asked before, in the other half of the year perhaps, must not matter.
      (void)local(i % 3 == 0 ? "2024-01-15 12:00:00" : "2024-07-15 12:00:00");
      EXPECT_EQ(cron_next_run(fields, now, i % 2 == 0), expected)
          << zone.name << " " << text << " at " << shown(now) << ": " << shown(expected);
    }
  }
}

}  // namespace
}  // namespace orv
