// SHA-256, HMAC-SHA256 and CRC-32C.
#ifndef ORV_COMMON_DIGEST_H_
#define ORV_COMMON_DIGEST_H_

#include <array>
#include <cstddef>
#include <cstdint>
#include <string_view>

#include "common/fixed_text.h"

namespace orv {

inline constexpr std::size_t kSha256Size = 32;
using Sha256Digest = std::array<unsigned char, kSha256Size>;
using HexDigest = FixedText<2 * kSha256Size>;  // 64 lower-case hexadecimal digits

// One-shot SHA-256 (FIPS 180-4). A failure of libcrypto is fatal: it says so and aborts, so callers
// never see an error.
[[nodiscard]] Sha256Digest sha256(std::string_view bytes);

// Makes libcrypto load what the functions here need, so that want of memory shows before there is
// anything to lose. False when it cannot be had; then nothing here may be called.
[[nodiscard]] bool prepare_digests();

// The streaming form. Fatal as above. An update with no bytes changes nothing.
class Sha256 {
 public:
  Sha256();
  Sha256(const Sha256&) = delete;
  Sha256& operator=(const Sha256&) = delete;
  ~Sha256();
  void update(std::string_view bytes);
  [[nodiscard]] Sha256Digest finish();  // once

 private:
  void* context_;  // EVP_MD_CTX
};

[[nodiscard]] HexDigest to_hex(const Sha256Digest& digest);

// HMAC-SHA256 (RFC 2104) of `data` under `key`, as lower-case hexadecimal digits.
[[nodiscard]] HexDigest hmac_sha256_hex(std::string_view key, std::string_view data);

// Compares in a time that depends on the lengths only.
[[nodiscard]] bool equal_constant_time(std::string_view a, std::string_view b);

// CRC-32C (Castagnoli, RFC 3720 appendix B.4) of `data`, continuing from `crc`; start with 0.
[[nodiscard]] std::uint32_t crc32c(std::uint32_t crc, std::string_view data);
// The table-driven path that crc32c() takes on processors without the instruction; for its test.
[[nodiscard]] std::uint32_t crc32c_portable(std::uint32_t crc, std::string_view data);

}  // namespace orv

#endif  // ORV_COMMON_DIGEST_H_
