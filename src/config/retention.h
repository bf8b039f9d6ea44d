// How long a backup is kept, as a job's retention= and retention-class= say it.
#ifndef ORV_CONFIG_RETENTION_H_
#define ORV_CONFIG_RETENTION_H_

#include <cstddef>
#include <cstdint>
#include <string_view>

namespace orv {

// How long a backup is kept: a count of days, weeks, months or years, or for ever.
enum class RetentionUnit : std::uint32_t {
  Forever = 0,
  Days = 1,
  Weeks = 2,
  Months = 3,
  Years = 4
};
struct Retention {
  RetentionUnit unit = RetentionUnit::Forever;
  std::uint32_t count = 0;  // of units; 0 for Forever
};
inline constexpr std::size_t kMaxRetention = 31;       // bytes of the text
inline constexpr std::size_t kMaxRetentionClass = 31;  // bytes

// "<n>d", "<n>w", "<n>m", "<n>y" (n >= 1, at most 100 years) or "forever". False: `out` as it was.
[[nodiscard]] bool parse_retention(std::string_view text, Retention& out);
// When what was made at `from` (Unix seconds) expires. Months and years move the civil date in UTC,
// the day clamped to the target month's last; "forever" gives INT64_MAX.
[[nodiscard]] std::int64_t add_retention(std::int64_t from, const Retention& retention);
// 1..kMaxRetentionClass characters of a-z, 0-9, "_" and "-".
[[nodiscard]] bool check_retention_class(std::string_view text);

}  // namespace orv

#endif  // ORV_CONFIG_RETENTION_H_
