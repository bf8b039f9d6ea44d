#include "config/once_time.h"

#include <time.h>

#include <algorithm>
#include <array>
#include <limits>

#include "common/text.h"

namespace orv {
namespace {

// Takes a number off the front of `text`.
bool take_number(std::string_view& text, int& out) {
  std::size_t digits = 0;
  while (digits < text.size() && is_digit(text[digits])) ++digits;
  std::uint32_t number = 0;
  if (!parse_u32(text.substr(0, digits), number)) return false;
  if (number > static_cast<std::uint32_t>(std::numeric_limits<int>::max())) return false;
  text.remove_prefix(digits);
  out = static_cast<int>(number);
  return true;
}

bool take_char(std::string_view& text, char c) {
  if (text.empty() || text.front() != c) return false;
  text.remove_prefix(1);
  return true;
}

// Reads "<year>-<month>-<day> <hour>:<minute>[:<second>]". What follows does not count, unless it
// could be meant as a time zone, an offset from UTC or the half of a day: the time is always local,
// and by the clock of 24 hours.
bool scan_date(std::string_view text, struct tm& date) {
  int year = 0;
  if (!take_number(text, year) || !take_char(text, '-') || !take_number(text, date.tm_mon) ||
      !take_char(text, '-') || !take_number(text, date.tm_mday)) {
    return false;
  }
  while (!text.empty() && is_space(text.front())) text.remove_prefix(1);
  if (!take_number(text, date.tm_hour) || !take_char(text, ':') ||
      !take_number(text, date.tm_min)) {
    return false;
  }
  if (take_char(text, ':') && !text.empty() && is_digit(text.front()) &&
      !take_number(text, date.tm_sec)) {
    return false;
  }
  date.tm_year = year - 1900;
  date.tm_mon -= 1;
  return std::none_of(text.begin(), text.end(), [](char c) {
    return c == '-' || (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z');
  });
}

bool time_of_wall_clock(struct tm date, std::int64_t& out) {
  // In an hour that occurs twice mktime() keeps to the offset of the call before. Asking it for the
  // day's midnight first gives a text the same meaning at every load: the first of both.
  struct tm midnight = date;
  midnight.tm_hour = midnight.tm_min = midnight.tm_sec = 0;
  midnight.tm_isdst = -1;
  (void)::mktime(&midnight);  // asked for its effect on the next call
  date.tm_isdst = -1;
  const time_t time = ::mktime(&date);
  if (time == -1) return false;
  out = time;
  return true;
}

bool parse_local_once(std::string_view text, std::int64_t& out) {
  if (text.size() > kMaxOnceText || text.find_first_of("Zz+") != std::string_view::npos) {
    return false;
  }
  std::array<char, kMaxOnceText> copy{};  // the caller's text keeps its T
  text.copy(copy.data(), text.size());
  const std::size_t t = text.find_first_of("Tt");
  if (t != std::string_view::npos) copy[t] = ' ';
  struct tm date {};
  return scan_date({copy.data(), text.size()}, date) && time_of_wall_clock(date, out);
}

}  // namespace

bool parse_once(std::string_view text, std::int64_t& out) {
  if (std::all_of(text.begin(), text.end(), is_digit)) return parse_i64(text, out);
  return parse_local_once(text, out);
}

}  // namespace orv
