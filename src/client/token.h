// A client's token: the name it goes by and the secret that signs its requests.
#ifndef ORV_CLIENT_TOKEN_H_
#define ORV_CLIENT_TOKEN_H_

#include <cstddef>
#include <memory>
#include <span>
#include <string>
#include <string_view>

#include "common/fixed_text.h"

namespace orv {

inline constexpr std::size_t kMaxClientTokenName = 64;
inline constexpr std::size_t kTokenSecretSize = 43;  // characters, all of them the key

struct ClientToken {
  FixedText<kMaxClientTokenName> name;   // letters, digits, "_" and "-"
  FixedSecret<kTokenSecretSize> secret;  // zeroed when it goes
};
// Shared by the connections that sign with it.
using ClientTokenPtr = std::shared_ptr<const ClientToken>;

// Reads "NAME.SECRET", white space around it ignored. Null when it is anything else.
[[nodiscard]] ClientTokenPtr parse_token(std::string_view text);

// Reads the token that a file holds. The file must be a regular one and give no right to group or
// others; a more open one is refused with the remedy. Null after one message, which never quotes
// what the file holds.
[[nodiscard]] ClientTokenPtr read_token_file(const std::string& path, std::span<char> err);

}  // namespace orv

#endif  // ORV_CLIENT_TOKEN_H_
