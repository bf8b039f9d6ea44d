// The values that configuration keys take, apart from any file: shared by the loader and the API.
#ifndef ORV_CONFIG_VALUES_H_
#define ORV_CONFIG_VALUES_H_

#include <cstddef>
#include <cstdint>
#include <span>
#include <string_view>

#include "common/fixed_text.h"

namespace orv {

// "yes", "true", "1" and "no", "false", "0"; the words without regard to case. False: neither.
[[nodiscard]] bool parse_yes_no(std::string_view text, bool& out);

enum class Notify : std::int32_t { Inherit = -1, Never = 0, Failed = 1, Always = 2 };
// "never", "failed" or "always", exactly.
[[nodiscard]] bool parse_notify(std::string_view text, Notify& out);
[[nodiscard]] const char* notify_name(Notify notify);  // "inherit" for Inherit

enum class TlsMode : std::uint32_t { None = 0, StartTls = 1, Smtps = 2 };
[[nodiscard]] bool parse_tls_mode(std::string_view text, TlsMode& out);
[[nodiscard]] const char* tls_mode_name(TlsMode mode);

// A numeric address and port to listen on.
inline constexpr std::size_t kMaxListenAddress = 127;  // bytes
struct ListenAddress {
  FixedText<kMaxListenAddress> host;  // without brackets
  std::uint32_t port = 0;             // 1..65535
};
// "<address>:<port>", "[<ipv6>]:<port>" or "<port>" (then 0.0.0.0). False: `out` as it was.
[[nodiscard]] bool parse_listen(std::string_view text, ListenAddress& out);

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
  std::uint32_t count = 0;
};
inline constexpr std::size_t kMaxRetention = 31;       // bytes
inline constexpr std::size_t kMaxRetentionClass = 31;  // bytes

// "<n>d", "<n>w", "<n>m", "<n>y" (n >= 1, at most 100 years) or "forever". False: `out` as it was.
[[nodiscard]] bool parse_retention(std::string_view text, Retention& out);
// When something of age `from` (Unix seconds) expires. Months and years move the civil date in UTC,
// the day clamped to the target month's last; "forever" gives INT64_MAX.
[[nodiscard]] std::int64_t add_retention(std::int64_t from, const Retention& retention);
// 1..kMaxRetentionClass characters of a-z, 0-9, "_" and "-".
[[nodiscard]] bool check_retention_class(std::string_view text);

// A moment in the server's local time or in Unix seconds: "1700000000" or "2026-01-02T03:04[:05]".
// Fields are normalised as mktime(3) does. False: not such a text, `out` as it was.
inline constexpr std::size_t kMaxOnceText = 63;  // bytes
[[nodiscard]] bool parse_once(std::string_view text, std::int64_t& out);

// Where a secret is found: the literal text, a file, or a key service (parsed, not read yet).
enum class SecretKind : std::uint32_t { Literal = 0, File = 1, Kms = 2 };
inline constexpr std::size_t kMaxSecret = 64;  // bytes
struct SecretReference {
  SecretKind kind = SecretKind::Literal;
  std::string_view text;  // behind the prefix; leads into the parsed text
};
// 0; -1 with a message (an empty value, a prefix alone, a literal where none may stand).
[[nodiscard]] int parse_secret_reference(std::string_view text, bool literal_allowed,
                                         SecretReference& out, std::span<char> err);
// Reads the secret itself: 1..kMaxSecret bytes. False: unreadable, empty, too long, or Kms.
[[nodiscard]] bool read_secret(const SecretReference& reference, FixedSecret<kMaxSecret>& out);

}  // namespace orv

#endif  // ORV_CONFIG_VALUES_H_
