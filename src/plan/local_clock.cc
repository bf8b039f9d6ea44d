#include "plan/local_clock.h"

#include <time.h>

#include <array>
#include <cstdio>

#include "plan/describe.h"

namespace orv {
namespace {

constexpr std::int64_t kStretch = std::int64_t{6} * 3600;
constexpr std::int64_t kMargin = std::int64_t{3} * 3600;  // no change of a clock is larger
constexpr std::int64_t kLatest = 253402214400;            // the end of the year 9999, a day early

}  // namespace

std::int64_t utc_offset(std::int64_t time) {
  const time_t seconds = time;
  struct tm local {};
  return ::localtime_r(&seconds, &local) == nullptr ? 0 : local.tm_gmtoff;
}

std::string LocalClock::text(std::int64_t time) {
  if (time < 1 || time > kLatest) return clock_text(time);
  if (time < from_ || time >= to_) {
    from_ = time - time % kStretch;
    to_ = from_ + kStretch;
    offset_ = utc_offset(from_ - kMargin);
    steady_ = utc_offset(to_ + kMargin) == offset_;
  }
  // Near a change the clock may show a time twice: the slow way tells the two apart.
  if (!steady_) return clock_text(time);
  const time_t seconds = time + offset_;
  struct tm civil {};
  ::gmtime_r(&seconds, &civil);
  std::array<char, 80> text{};
  std::snprintf(text.data(), text.size(), "%04d-%02d-%02d %02d:%02d:%02d", civil.tm_year + 1900,
                civil.tm_mon + 1, civil.tm_mday, civil.tm_hour, civil.tm_min, civil.tm_sec);
  return text.data();
}

}  // namespace orv
