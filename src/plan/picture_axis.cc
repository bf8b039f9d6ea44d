#include "plan/picture_axis.h"

#include <time.h>

#include <array>

namespace orv {
namespace {

constexpr std::int64_t kHour = 3600;
constexpr std::int64_t kDay = 86400;
constexpr double kNightFrom = 40;   // units of a day from which on nights are shaded
constexpr double kWeekendFrom = 3;  // and weekends
constexpr double kLabelGap = 12;    // between two labels
constexpr double kCharWidth = 6.2;  // of a label, on average

struct tm local(std::int64_t time) {
  const time_t seconds = time;
  struct tm civil {};
  ::localtime_r(&seconds, &civil);
  return civil;
}

// That civil time; a field may lie beyond its range. Days and hours are not always of one length.
std::int64_t moment(int year, int month, int day, int hour) {
  struct tm civil {};
  civil.tm_year = year;
  civil.tm_mon = month;
  civil.tm_mday = day;
  civil.tm_hour = hour;
  civil.tm_isdst = -1;
  return ::mktime(&civil);
}

// How far apart ticks are: a number of one unit, and how a tick is labelled.
struct Step {
  enum Unit { Hours, Days, Months } unit;
  int count;
  std::int64_t seconds;
  const char* format;  // of strftime(3)
  std::size_t label;   // characters
};
// clang-format off
constexpr Step kSteps[] = {
    {Step::Hours, 1, kHour, "%H:00", 5},        {Step::Hours, 2, 2 * kHour, "%H:00", 5},
    {Step::Hours, 3, 3 * kHour, "%H:00", 5},    {Step::Hours, 6, 6 * kHour, "%H:00", 5},
    {Step::Hours, 12, 12 * kHour, "%H:00", 5},  {Step::Days, 1, kDay, "%a %d %b", 10},
    {Step::Days, 1, kDay, "%d %b", 6},          {Step::Days, 1, kDay, "%d", 2},
    {Step::Days, 7, 7 * kDay, "%d %b", 6},      {Step::Days, 14, 14 * kDay, "%d %b", 6},
    {Step::Months, 1, 30 * kDay, "%b %Y", 8},   {Step::Months, 3, 91 * kDay, "%b %Y", 8},
};
// clang-format on

const Step& choose_step(const TimeScale& scale) {
  const double unit = scale.width / static_cast<double>(scale.to - scale.from);
  for (const Step& step : kSteps) {
    const double room = static_cast<double>(step.seconds) * unit;
    if (room >= static_cast<double>(step.label) * kCharWidth + kLabelGap) return step;
  }
  return kSteps[std::size(kSteps) - 1];
}

// The first tick's civil time at or before the scale's beginning: a midnight, and for steps of
// weeks a Monday, of months the first.
std::int64_t first_tick(const TimeScale& scale, const Step& step, struct tm& at) {
  at = local(scale.from);
  at.tm_hour = 0;
  if (step.unit == Step::Months) at.tm_mday = 1;
  if (step.unit == Step::Days && step.count >= 7) at.tm_mday -= (at.tm_wday + 6) % 7;
  return moment(at.tm_year, at.tm_mon, at.tm_mday, 0);
}

std::string label_of(const struct tm& civil, const Step& step) {
  const bool midnight = step.unit == Step::Hours && civil.tm_hour == 0;
  // Among bare numbers the first of a month says which one begins.
  const bool first = step.label == 2 && civil.tm_mday == 1;
  std::array<char, 32> text{};
  const char* const format = midnight ? "%a %d" : first ? "%b" : step.format;
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wformat-nonliteral"
  (void)::strftime(text.data(), text.size(), format, &civil);
#pragma GCC diagnostic pop
  return text.data();
}

bool is_strong(const struct tm& civil, const Step& step) {
  if (step.unit == Step::Hours) return civil.tm_hour == 0;
  if (step.unit == Step::Days) return step.count == 1 && civil.tm_wday == 1;
  return civil.tm_mon == 0;
}

void add_shade(std::vector<Shade>& shades, const TimeScale& scale, std::int64_t from,
               std::int64_t to, bool weekend) {
  if (to <= scale.from || from >= scale.to) return;
  shades.push_back({scale.x(from), scale.x(to) - scale.x(from), weekend});
}

}  // namespace

std::vector<Tick> make_ticks(const TimeScale& scale) {
  const Step& step = choose_step(scale);
  struct tm base {};
  std::vector<Tick> ticks;
  std::int64_t last = first_tick(scale, step, base) - 1;
  for (int i = 0; last <= scale.to; i += step.count) {
    const std::int64_t time =
        step.unit == Step::Hours  ? moment(base.tm_year, base.tm_mon, base.tm_mday, i)
        : step.unit == Step::Days ? moment(base.tm_year, base.tm_mon, base.tm_mday + i, 0)
                                  : moment(base.tm_year, base.tm_mon + i, 1, 0);
    if (time == -1) break;       // beyond the calendar
    if (time <= last) continue;  // an hour that the clock skips or shows twice
    last = time;
    if (time < scale.from || time > scale.to) continue;
    const struct tm civil = local(time);
    ticks.push_back({scale.x(time), label_of(civil, step), is_strong(civil, step)});
  }
  return ticks;
}

std::vector<Shade> make_shades(const TimeScale& scale) {
  const double day_width =
      scale.width * static_cast<double>(kDay) / static_cast<double>(scale.to - scale.from);
  std::vector<Shade> shades;
  if (day_width < kWeekendFrom) return shades;
  const struct tm base = local(scale.from);
  // From the day before on, whose night reaches into the picture.
  for (int i = -1;; ++i) {
    const std::int64_t midnight = moment(base.tm_year, base.tm_mon, base.tm_mday + i, 0);
    if (midnight >= scale.to || midnight == -1) return shades;
    const struct tm civil = local(midnight);
    if (civil.tm_wday == 6) {
      add_shade(shades, scale, midnight, moment(base.tm_year, base.tm_mon, base.tm_mday + i + 2, 0),
                true);
    }
    if (day_width < kNightFrom) continue;
    add_shade(shades, scale, moment(base.tm_year, base.tm_mon, base.tm_mday + i, 22),
              moment(base.tm_year, base.tm_mon, base.tm_mday + i + 1, 6), false);
  }
}

}  // namespace orv
