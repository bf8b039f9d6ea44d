// Where a secret of the configuration is found, and the reading of it.
#ifndef ORV_CONFIG_SECRET_REFERENCE_H_
#define ORV_CONFIG_SECRET_REFERENCE_H_

#include <cstddef>
#include <cstdint>
#include <span>
#include <string_view>

#include "common/fixed_text.h"

namespace orv {

// Where a secret is found: the literal text, a file, or a key service (parsed, not read yet).
// "file:<path>", "kms:<url>", anything else is the secret itself.
enum class SecretKind : std::uint32_t { Literal = 0, File = 1, Kms = 2 };
inline constexpr std::size_t kMaxSecret = 64;  // bytes
struct SecretReference {
  SecretKind kind = SecretKind::Literal;
  std::string_view text;  // after the prefix; borrowed from the parsed text
};
// False with a message (an empty value, a prefix alone, a literal where none may stand).
[[nodiscard]] bool parse_secret_reference(std::string_view text, bool literal_allowed,
                                          SecretReference& out, std::span<char> err);
// Reads the secret itself: 1..kMaxSecret bytes. False: unreadable, empty, too long, or Kms.
[[nodiscard]] bool read_secret(const SecretReference& reference, FixedSecret<kMaxSecret>& out);

}  // namespace orv

#endif  // ORV_CONFIG_SECRET_REFERENCE_H_
