// The words that settings take: yes and no, when to mail, how to encrypt. Shared by the loader and
// the API.
#ifndef ORV_CONFIG_VALUES_H_
#define ORV_CONFIG_VALUES_H_

#include <cstdint>
#include <string_view>

namespace orv {

// "yes", "true", "1" and "no", "false", "0"; the words without regard to case. False: neither.
[[nodiscard]] bool parse_yes_no(std::string_view text, bool& out);

enum class Notify : std::int32_t { Inherit = -1, Never = 0, Failed = 1, Always = 2 };
// "never", "failed" or "always", exactly.
[[nodiscard]] bool parse_notify(std::string_view text, Notify& out);
[[nodiscard]] const char* notify_name(Notify notify);  // "inherit" for Inherit

enum class TlsMode : std::uint32_t { None = 0, StartTls = 1, Smtps = 2 };
// "none", "starttls" or "smtps", exactly.
[[nodiscard]] bool parse_tls_mode(std::string_view text, TlsMode& out);
[[nodiscard]] const char* tls_mode_name(TlsMode mode);  // "?" for a number that is no mode

}  // namespace orv

#endif  // ORV_CONFIG_VALUES_H_
