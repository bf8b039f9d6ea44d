// The API's self-signed certificate, whose fingerprint clients pin.
#ifndef ORV_NET_CERTIFICATE_H_
#define ORV_NET_CERTIFICATE_H_

#include <cstddef>
#include <span>

#include "common/status.h"

namespace orv {

inline constexpr int kCertificateDays = 3650;
inline constexpr std::size_t kFingerprintSize = 96;  // 32 hexadecimal pairs, colons, NUL

// Makes a P-256 key and an X.509 v3 certificate for it with `common_name` as its subject and its
// one subjectAltName, and writes the key (mode 0600, created exclusively when `exclusive_key`),
// then the certificate. Invalid when a text is null; AlreadyExists when `force` is off and either
// file exists (nothing is written then); IoError for any other failure. `days` below 1 means
// kCertificateDays.
[[nodiscard]] ErrorCode cert_create(const char* cert_path, const char* key_path,
                                    const char* common_name, int days, bool force,
                                    bool exclusive_key);

// The SHA-256 of the certificate's DER form as "AB:CD:...". Invalid when `out` is smaller than
// kFingerprintSize or the file holds no PEM certificate; NotFound when it cannot be opened; IoError
// when the digest fails.
[[nodiscard]] ErrorCode cert_fingerprint(const char* cert_path, std::span<char> out);

}  // namespace orv

#endif  // ORV_NET_CERTIFICATE_H_
