#include "plan/describe.h"

#include <time.h>

#include <array>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <span>
#include <string_view>
#include <vector>

#include "common/times.h"
#include "common/utf8.h"

namespace orv {
namespace {

constexpr std::array<std::string_view, 7> kDays = {"Sunday",   "Monday", "Tuesday", "Wednesday",
                                                   "Thursday", "Friday", "Saturday"};
constexpr std::array<std::string_view, 13> kMonths = {
    "",     "January", "February",  "March",   "April",    "May",     "June",
    "July", "August",  "September", "October", "November", "December"};

std::vector<unsigned> selected(std::span<const std::uint8_t> flags) {
  std::vector<unsigned> values;
  for (unsigned i = 0; i < flags.size(); ++i) {
    if (flags[i] != 0) values.push_back(i);
  }
  return values;
}

// "1, 5 to 9, 20", each value put into words by `word`.
template <typename Word>
std::string list_in_words(const std::vector<unsigned>& values, Word word) {
  std::string text;
  for (std::size_t i = 0; i < values.size();) {
    std::size_t last = i;
    while (last + 1 < values.size() && values[last + 1] == values[last] + 1) ++last;
    if (last == i + 1) last = i;  // two neighbours read better apart
    if (!text.empty()) text += ", ";
    text += word(values[i]);
    if (last > i) text.append(" to ").append(word(values[last]));
    i = last + 1;
  }
  return text;
}

std::string plain(unsigned value) { return std::to_string(value); }

std::string clock(unsigned hour, unsigned minute) {
  std::array<char, 16> text{};
  std::snprintf(text.data(), text.size(), "%02u:%02u", hour, minute);
  return text.data();
}

// The step of "every n minutes", 0 when the values are no such series over the whole range.
unsigned even_step(const std::vector<unsigned>& values, unsigned range) {
  if (values.size() < 2 || values.front() != 0 || range % values.size() != 0) return 0;
  const auto step = static_cast<unsigned>(range / values.size());
  for (std::size_t i = 0; i < values.size(); ++i) {
    if (values[i] != i * step) return 0;
  }
  return step;
}

std::string time_in_words(const CronSpec& cron) {
  const std::vector<unsigned> minutes = selected(cron.minute);
  const std::vector<unsigned> hours = selected(cron.hour);
  const bool all_hours = hours.size() == cron.hour.size();
  // Few times are read best one by one, many as a step or as lists.
  constexpr std::size_t kMaxTimes = 6;
  if (minutes.size() * hours.size() <= kMaxTimes) {
    std::string text = "at ";
    for (const unsigned hour : hours) {
      for (const unsigned minute : minutes) {
        if (text.size() > 3) text += ", ";
        text += clock(hour, minute);
      }
    }
    return text;
  }
  // The hours follow the minutes: "every 20 minutes of hour 8 to 18".
  std::string text;
  if (minutes.size() == cron.minute.size()) {
    text = "every minute";
  } else if (const unsigned step = even_step(minutes, 60); step != 0) {
    text = "every " + plain(step) + " minutes";
  } else {
    text = "at minute " + list_in_words(minutes, plain);
  }
  if (all_hours)
    return minutes.size() < 60 && text.starts_with("at") ? text + " of every hour" : text;
  if (const unsigned step = even_step(hours, 24); step != 0) {
    return text + " of every " + plain(step) + " hours";
  }
  return text + " of hour " + list_in_words(hours, plain);
}

// The length of the character that `text` begins with; 0 when that is none to show: no UTF-8, a
// control character (U+0080 to U+009F are such, too), or one that documents of markup refuse.
std::size_t shown_length(std::string_view text) {
  const auto byte = static_cast<unsigned char>(text[0]);
  if (byte < 0x80) return byte >= 0x20 && byte != 0x7F ? 1 : 0;
  const std::size_t length = utf8_sequence(text);
  const std::string_view sequence = text.substr(0, length);
  const bool control = sequence >= "\xC2\x80" && sequence < "\xC2\xA0";
  return control || sequence == "\uFFFE" || sequence == "\uFFFF" ? 0 : length;
}

}  // namespace

std::string printable(std::string_view text) {
  std::string out;
  while (!text.empty()) {
    const std::size_t length = shown_length(text);
    if (length != 0) {
      out += text.substr(0, length);
    } else {
      std::array<char, 8> code{};
      std::snprintf(code.data(), code.size(), "\\x%02x", static_cast<unsigned char>(text[0]));
      out += code.data();
    }
    text.remove_prefix(length != 0 ? length : 1);
  }
  return out;
}

std::string clock_text(std::int64_t time) {
  // A text that another moment shares needs the zone's name to tell the two apart.
  std::string text = local_time_cell(time);
  constexpr std::array<int, 2> kSteps = {1800, 3600};  // by which clocks are set back
  for (const int step : kSteps) {
    if (text == "-" ||
        (local_time_cell(time - step) != text && local_time_cell(time + step) != text))
      continue;
    return text + " " + format_local(time, "%Z");
  }
  return text;
}

std::string schedule_in_words(const CronSpec& cron) {
  std::string text = time_in_words(cron);
  // Both 0 and 7 are Sunday.
  CronSpec week = cron;
  week.day_of_week[0] |= week.day_of_week[7];
  const std::vector<unsigned> days = selected(std::span(week.day_of_week).first(7));
  const std::vector<unsigned> dates = selected(cron.day_of_month);
  const std::vector<unsigned> months = selected(cron.month);
  if (dates.size() < 31) text += ", on day " + list_in_words(dates, plain) + " of the month";
  if (days.size() < 7) {
    text += dates.size() < 31 ? " when it is " : ", on ";
    text += list_in_words(days, [](unsigned day) { return std::string(kDays[day]); });
  }
  if (months.size() < 12) {
    text += ", in ";
    text += list_in_words(months, [](unsigned month) { return std::string(kMonths[month]); });
  }
  return text;
}

std::string duration_text(std::int64_t seconds) {
  // Two units at most: nobody plans a night by the seconds of a day.
  std::array<char, 64> text{};
  const auto s = static_cast<long long>(seconds);
  if (s >= 86400) {
    std::snprintf(text.data(), text.size(), "%lldd %02lldh", s / 86400, s / 3600 % 24);
  } else if (s >= 3600) {
    std::snprintf(text.data(), text.size(), "%lldh %02lldm", s / 3600, s / 60 % 60);
  } else if (s >= 60) {
    std::snprintf(text.data(), text.size(), "%lldm %02llds", s / 60, s % 60);
  } else {
    std::snprintf(text.data(), text.size(), "%llds", s);
  }
  return text.data();
}

std::string duration_cell(std::optional<std::int64_t> seconds) {
  return seconds ? duration_text(*seconds) : "-";
}

}  // namespace orv
