// Local times in bulk: a row of thousands of runs asks the C library for the time zone once in a
// few hours of them.
#ifndef ORV_PLAN_LOCAL_CLOCK_H_
#define ORV_PLAN_LOCAL_CLOCK_H_

#include <cstdint>
#include <string>

namespace orv {

// Seconds that local time is ahead of UTC at that moment.
[[nodiscard]] std::int64_t utc_offset(std::int64_t time);

// Keeps the offset of a stretch of hours without a change of the clock. The time zone must not
// change during its life.
class LocalClock {
 public:
  // As clock_text().
  [[nodiscard]] std::string text(std::int64_t time);

 private:
  std::int64_t from_ = 0;  // the stretch; empty at first
  std::int64_t to_ = 0;
  std::int64_t offset_ = 0;
  bool steady_ = false;
};

}  // namespace orv

#endif  // ORV_PLAN_LOCAL_CLOCK_H_
