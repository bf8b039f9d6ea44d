// The texts of an API token: a name, and a secret that is the base64url form of 32 random bytes
// (RFC 4648 section 5, without padding).
#ifndef ORV_COMMON_TOKEN_TEXT_H_
#define ORV_COMMON_TOKEN_TEXT_H_

#include <cstddef>
#include <string_view>

namespace orv {

inline constexpr std::size_t kMaxTokenName = 64;       // bytes
inline constexpr std::size_t kTokenSecretLength = 43;  // bytes

// Letters, digits, "-" and "_".
inline constexpr std::string_view kBase64UrlDigits =
    "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789-_";

// 1..kMaxTokenName of these characters.
[[nodiscard]] constexpr bool check_token_name(std::string_view text) {
  return !text.empty() && text.size() <= kMaxTokenName &&
         text.find_first_not_of(kBase64UrlDigits) == std::string_view::npos;
}

// Exactly kTokenSecretLength of them.
[[nodiscard]] constexpr bool check_token_secret(std::string_view text) {
  return text.size() == kTokenSecretLength &&
         text.find_first_not_of(kBase64UrlDigits) == std::string_view::npos;
}

}  // namespace orv

#endif  // ORV_COMMON_TOKEN_TEXT_H_
