// The API's self-signed certificate, whose fingerprint clients pin.
#ifndef ORV_NET_CERTIFICATE_H_
#define ORV_NET_CERTIFICATE_H_

#include <cstddef>
#include <span>
#include <string>
#include <string_view>

#include "common/secret.h"
#include "common/status.h"

namespace orv {

inline constexpr int kCertificateDays = 3650;
inline constexpr std::size_t kFingerprintSize = 96;  // 32 hexadecimal pairs, colons, NUL

// Makes a P-256 key and an X.509 v3 certificate (RFC 5280) for it with `common_name` as its subject
// and its one subjectAltName, and puts both files in place: each is written whole under a temporary
// name of mode 0600 (the certificate gets 0644), then the key is renamed, then the certificate.
// Whatever fails before the first rename leaves the old pair.
// Invalid when a text is null; AlreadyExists when `force` is off and either file exists (nothing is
// written then); IoError for any other failure. `days` below 1 means kCertificateDays.
[[nodiscard]] ErrorCode cert_create(const char* cert_path, const char* key_path,
                                    const char* common_name, int days, bool force);

// What either new file is called while it is written, followed by the writer's pid.
[[nodiscard]] std::string pair_temporary_prefix(const std::string& path);

// What the two files of a pair are good for.
enum class CertPair {
  Usable,
  Unreadable,  // one of them is missing, cannot be read or is no PEM text
  Unusable,    // no certificate, no unencrypted private key, or not the key of this certificate
};

// What is wrong with a pair of PEM texts.
enum class PairFault { None, NoCertificate, NoKey, NotItsKey };
[[nodiscard]] PairFault cert_check_pair(std::string_view cert_pem, std::string_view key_pem);

// Reads a certificate and its private key and checks that they belong together. Usable: `cert_pem`
// and `key_pem` hold the texts. Else they are as they were and `err` names the file and the reason.
[[nodiscard]] CertPair cert_load_pair(const char* cert_path, const char* key_path,
                                      SecretString& cert_pem, SecretString& key_pem,
                                      std::span<char> err);

// The SHA-256 of the certificate's DER form as "AB:CD:...". Invalid when `out` is smaller than
// kFingerprintSize or the file holds no PEM certificate; NotFound when it cannot be opened; IoError
// when the digest fails.
[[nodiscard]] ErrorCode cert_fingerprint(const char* cert_path, std::span<char> out);

}  // namespace orv

#endif  // ORV_NET_CERTIFICATE_H_
