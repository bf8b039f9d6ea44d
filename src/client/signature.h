// The signatures of requests and replies (chapter 2 of docs/sched-api.txt). Pure functions.
#ifndef ORV_CLIENT_SIGNATURE_H_
#define ORV_CLIENT_SIGNATURE_H_

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

#include "client/token.h"

namespace orv {

inline constexpr std::size_t kNonceSize = 32;              // lower-case hexadecimal digits
inline constexpr std::size_t kMaxCanonicalRequest = 4095;  // bytes of the text that is signed

// What a signature covers, as it is sent.
struct SignedRequest {
  std::string_view method;
  std::string_view path;   // percent-encoding and all
  std::string_view query;  // without its "?"
  std::string_view body;
  std::string_view if_match;  // with its quotes
};

// A new nonce from 16 random bytes; empty when there are none to be had.
[[nodiscard]] std::string new_nonce();

// The value of the Authorization header. Empty when the request is too long to be signed.
[[nodiscard]] std::string authorization(const ClientToken& token, const SignedRequest& request,
                                        std::int64_t unix_time, std::string_view nonce);

// Whether `signature` is that of the reply to the request with this nonce, compared in constant
// time.
[[nodiscard]] bool is_reply_signature(const ClientToken& token, std::string_view nonce, int status,
                                      std::string_view body, std::string_view signature);

}  // namespace orv

#endif  // ORV_CLIENT_SIGNATURE_H_
