// The clock for waits and deadlines: steps of the wall clock neither shorten nor stretch them.
#ifndef ORV_COMMON_CLOCK_H_
#define ORV_COMMON_CLOCK_H_

#include <time.h>

#include <cstdint>

namespace orv {

// Time since some fixed moment (CLOCK_MONOTONIC), which stands still while the machine sleeps.
[[nodiscard]] inline std::int64_t monotonic_ns() {
  timespec now{};
  (void)::clock_gettime(CLOCK_MONOTONIC, &now);  // cannot fail for this clock
  return std::int64_t{now.tv_sec} * 1'000'000'000 + now.tv_nsec;
}
[[nodiscard]] inline std::int64_t monotonic_ms() { return monotonic_ns() / 1'000'000; }

}  // namespace orv

#endif  // ORV_COMMON_CLOCK_H_
