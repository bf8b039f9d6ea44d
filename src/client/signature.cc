#include "client/signature.h"

#include <openssl/rand.h>

#include <array>

#include "common/digest.h"
#include "common/text.h"

namespace orv {

std::string new_nonce() {
  std::array<unsigned char, kNonceSize / 2> bytes{};
  if (RAND_bytes(bytes.data(), static_cast<int>(bytes.size())) != 1) return {};
  std::string nonce;
  for (const unsigned char byte : bytes) {
    nonce += kHexDigits[byte >> 4U];
    nonce += kHexDigits[byte & 15U];
  }
  return nonce;
}

std::string authorization(const ClientToken& token, const SignedRequest& request,
                          std::int64_t unix_time, std::string_view nonce) {
  const std::string time = std::to_string(unix_time);
  const HexDigest digest = to_hex(sha256(request.body));
  // Line feeds between the lines and none at the end; connections let no line feed into a line.
  std::string text = "ORV1";
  for (const std::string_view line :
       {request.method, request.path, request.query, std::string_view(time), nonce, digest.view(),
        request.if_match}) {
    text += '\n';
    text += line;
  }
  // The server refuses a longer one before it looks at the signature.
  if (text.size() > kMaxCanonicalRequest) return {};
  std::string header = "ORV-HMAC-SHA256 key=";
  header += token.name.view();
  header += ", ts=" + time + ", nonce=";
  header += nonce;
  header += ", sig=";
  header += hmac_sha256_hex(token.secret.view(), text).view();
  return header;
}

bool is_reply_signature(const ClientToken& token, std::string_view nonce, int status,
                        std::string_view body, std::string_view signature) {
  std::string text = "ORV1-R\n";
  text += nonce;
  text += '\n' + std::to_string(status) + '\n';
  text += to_hex(sha256(body)).view();
  return equal_constant_time(hmac_sha256_hex(token.secret.view(), text).view(), signature);
}

}  // namespace orv
