// The time that a job's once= names.
#ifndef ORV_CONFIG_ONCE_TIME_H_
#define ORV_CONFIG_ONCE_TIME_H_

#include <cstddef>
#include <cstdint>
#include <string_view>

namespace orv {

// A moment in the server's local time or in Unix seconds: "1700000000" or "2026-01-02T03:04[:05]".
// Fields are normalised as mktime(3) does. False: not such a text, `out` as it was.
inline constexpr std::size_t kMaxOnceText = 63;  // bytes
[[nodiscard]] bool parse_once(std::string_view text, std::int64_t& out);

}  // namespace orv

#endif  // ORV_CONFIG_ONCE_TIME_H_
