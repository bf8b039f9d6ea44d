// Any bytes as the certificate and as the key of the API. No bytes hold both halves of a pair
// unless they hold a certificate and a key, and a refusal leaves nothing behind in the library's
// queue.
#include <openssl/err.h>

#include "fuzz/targets.h"
#include "net/certificate.h"

void orv::fuzz::certificate(std::string_view input) {
  const PairFault fault = cert_check_pair(input, input);
  if (fault == PairFault::None) {
    require(input.find("-----BEGIN ") != std::string_view::npos);
    require(input.find("PRIVATE KEY-----") != std::string_view::npos);
  }
  require(::ERR_peek_error() == 0);
}
