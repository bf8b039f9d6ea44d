// Times as text. The formats are strftime(3)'s.
#ifndef ORV_COMMON_TIMES_H_
#define ORV_COMMON_TIMES_H_

#include <cstdint>
#include <string>

namespace orv {

inline constexpr const char* kUtcStampFormat = "%Y%m%dT%H%M%SZ";  // 20261005T140000Z, in file names

// `time` (Unix seconds) in the server's local time, or in UTC; empty when it lies beyond the
// calendar.
[[nodiscard, gnu::format(strftime, 2, 0)]] std::string format_local(std::int64_t time,
                                                                    const char* format);
[[nodiscard, gnu::format(strftime, 2, 0)]] std::string format_utc(std::int64_t time,
                                                                  const char* format);

// "2026-10-05 14:00:00" in local time, as tables show it; "-" for 0, negative times, the largest
// number ("never"), and what lies beyond the calendar.
[[nodiscard]] std::string local_time_cell(std::int64_t time);

}  // namespace orv

#endif  // ORV_COMMON_TIMES_H_
