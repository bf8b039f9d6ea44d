// API tokens and the file that keeps them: root-only, one token a line, replaced whole.
#ifndef ORV_API_TOKENS_H_
#define ORV_API_TOKENS_H_

#include <cstddef>
#include <cstdint>
#include <memory>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "common/fixed_text.h"
#include "common/scoped_fd.h"
#include "common/token_text.h"

namespace orv {

inline constexpr std::size_t kMaxTokens = 256;

// Read may show and check, Admin also change, run and cancel; an admin's requests must be signed.
enum class TokenRole : std::uint32_t { Read = 0, Admin = 1 };
[[nodiscard]] const char* role_name(TokenRole role);  // "admin" or "read"
// These two words, exactly; `out` is written on success only.
[[nodiscard]] bool parse_role(std::string_view text, TokenRole& out);

// One line of the file.
struct ApiToken {
  FixedText<kMaxTokenName> name;
  TokenRole role = TokenRole::Read;
  std::int64_t created = 0;  // Unix seconds
  FixedSecret<kTokenSecretLength> secret;
};

// The tokens in the order of the file, each on the heap so that its secret never moves in memory.
struct TokenStore {
  std::vector<std::unique_ptr<ApiToken>> tokens;  // at most kMaxTokens
};

// Exact, case-sensitive; null when there is none.
[[nodiscard]] const ApiToken* find_token(const TokenStore& store, std::string_view name);

// Takes the exclusive lock ("<path>.lock") that whoever changes the tokens holds from reading them
// to writing them, waiting while another process has it. It ends with the descriptor. Empty with a
// message when there is none to be had.
[[nodiscard]] ScopedFd lock_tokens(const char* path, std::span<char> err);

// Reads the file into `out`. Ok, with no tokens when the file does not exist; otherwise a message
// and an empty store. The file must be a regular file, not a symlink, without group or other
// permissions.
enum class TokensRead : int {
  Ok = 0,
  Faulty = -1,   // it will not become better before it is changed
  Passing = -2,  // for want of descriptors or memory, or after an I/O error: try again
};
[[nodiscard]] TokensRead read_tokens(const char* path, TokenStore& out, std::span<char> err);

// Replaces the file. 0; -1 with a message, the old file in place.
[[nodiscard]] int write_tokens(const char* path, const TokenStore& store, std::span<char> err);

// What the new file is called while it is written, followed by the writer's pid.
[[nodiscard]] std::string tokens_temporary_prefix(const std::string& path);

// A fresh secret. 0; -1 when there are no random numbers.
[[nodiscard]] int new_token_secret(FixedSecret<kTokenSecretLength>& out);

}  // namespace orv

#endif  // ORV_API_TOKENS_H_
