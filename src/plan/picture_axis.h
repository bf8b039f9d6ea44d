// The time axis of a picture: where a moment lies, ticks that suit the span, nights and weekends.
#ifndef ORV_PLAN_PICTURE_AXIS_H_
#define ORV_PLAN_PICTURE_AXIS_H_

#include <algorithm>
#include <cstdint>
#include <string>
#include <vector>

namespace orv {

// Places are in units of the picture.
struct TimeScale {
  std::int64_t from = 0;  // Unix seconds
  std::int64_t to = 1;    // after `from`
  double left = 0;        // the place of `from`
  double width = 1;       // between the places of `from` and `to`

  // The place of a moment; one outside the span is moved to its nearer end.
  [[nodiscard]] double x(std::int64_t time) const {
    const double share =
        static_cast<double>(std::clamp(time, from, to) - from) / static_cast<double>(to - from);
    return left + share * width;
  }
};

struct Tick {
  double x = 0;
  std::string label;    // empty: a line without one
  bool strong = false;  // a midnight among hours, a Monday or the first of a month among days
};
// Ticks at round local times, as many as leave room for their labels.
[[nodiscard]] std::vector<Tick> make_ticks(const TimeScale& scale);

struct Shade {
  double x = 0;
  double width = 0;
  bool weekend = false;  // else a night
};
// Saturdays and Sundays as one, and nights (22:00 to 6:00), in local time, while days are wide
// enough to tell them apart.
[[nodiscard]] std::vector<Shade> make_shades(const TimeScale& scale);

}  // namespace orv

#endif  // ORV_PLAN_PICTURE_AXIS_H_
