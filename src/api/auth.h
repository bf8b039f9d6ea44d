// Authentication of API requests: Bearer secrets, signed requests with a time window and nonces,
// and the signature of responses.
#ifndef ORV_API_AUTH_H_
#define ORV_API_AUTH_H_

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <string_view>

#include "api/tokens.h"
#include "common/digest.h"
#include "common/fixed_text.h"
#include "net/ipc.h"

namespace orv {

inline constexpr std::int64_t kTimestampWindow = 300;  // seconds, either way
inline constexpr std::int64_t kNonceLifetime = 600;    // seconds
inline constexpr std::size_t kNonceSlots = 4096;
inline constexpr std::size_t kNonceLength = 32;         // lower-case hexadecimal digits
inline constexpr std::size_t kMaxCanonicalText = 4095;  // bytes

// In the order in which the checks are made.
enum class AuthResult : std::uint32_t {
  Ok = 0,
  NoCredentials = 1,
  Malformed = 2,
  UnknownToken = 3,
  WrongSecret = 4,
  AdminMustSign = 5,
  OutsideWindow = 6,
  NonceUsed = 7,
  TooManyRequests = 8,
};
// What the client and the log are told; "?" for any other value.
[[nodiscard]] const char* auth_result_text(AuthResult result);

// The nonces of the last kNonceSlots signed requests. Checking and storing one costs the same
// whether the ring is empty or full. Its memory is taken by the first signed request.
class NonceCache {
 public:
  NonceCache();
  ~NonceCache();
  NonceCache(const NonceCache&) = delete;
  NonceCache& operator=(const NonceCache&) = delete;
  // Ok (and the nonce, of kNonceLength bytes, is remembered), NonceUsed or TooManyRequests. A nonce
  // whose time lies ahead of `now`, because the clock was put back, counts as a young one.
  [[nodiscard]] AuthResult accept(std::string_view nonce, std::int64_t now);

 private:
  struct Ring;
  std::unique_ptr<Ring> ring_;
};

struct Authenticated {
  const ApiToken* token = nullptr;  // borrowed from the store
  bool is_signed = false;
  FixedText<kNonceLength> nonce;  // of a signed request
};

// Checks the Authorization header against the tokens: first its form, then the token, the secret or
// signature, the time, and last the nonce, so that only a request that is good in all else uses its
// nonce up. `out` is filled for Ok only.
[[nodiscard]] AuthResult authenticate(const TokenStore& store, NonceCache& nonces, std::int64_t now,
                                      const ApiRequest& request, Authenticated& out);

// The text that a request's signature covers: "ORV1", then method, path, query, timestamp, nonce,
// the body's SHA-256 and If-Match, each after a line feed. False when it is longer than
// kMaxCanonicalText, `out` then of no use.
[[nodiscard]] bool canonical_request(const ApiRequest& request, std::string_view timestamp,
                                     std::string_view nonce, std::string& out);

// Over "ORV1-R", the nonce, the status and the body's SHA-256, likewise: the signature of a
// response to the request that carried `nonce`, under its token's secret.
[[nodiscard]] HexDigest sign_response(std::string_view secret, std::string_view nonce,
                                      std::uint32_t status, std::string_view body);

}  // namespace orv

#endif  // ORV_API_AUTH_H_
