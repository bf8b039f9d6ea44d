#include "common/digest.h"

#include <openssl/crypto.h>
#include <openssl/evp.h>
#include <openssl/hmac.h>
#include <unistd.h>

#include <cstdlib>
#include <cstring>
#include <memory>

#include "common/text.h"

namespace orv {
namespace {

[[noreturn]] void fatal_sha256() {
  constexpr std::string_view kMessage = "fatal: OpenSSL SHA-256 failed\n";
  // The process is about to abort; nobody is left to hear of a failed write.
  [[maybe_unused]] const ssize_t ignored = ::write(STDERR_FILENO, kMessage.data(), kMessage.size());
  std::abort();
}

// Fetched once: each implicit fetch would search the providers again. Null when that fails.
const EVP_MD* fetch_sha256() {
  static EVP_MD* const algorithm = EVP_MD_fetch(nullptr, "SHA256", nullptr);
  return algorithm;
}

const EVP_MD* sha256_algorithm() {
  const EVP_MD* const algorithm = fetch_sha256();
  if (algorithm == nullptr) fatal_sha256();
  return algorithm;
}

EVP_MD_CTX* context_of(void* context) { return static_cast<EVP_MD_CTX*>(context); }

constexpr std::uint32_t kCastagnoli = 0x82F63B78;  // reflected

using CrcTable = std::array<std::uint32_t, 256>;

CrcTable make_crc_table() {
  CrcTable table{};
  for (std::uint32_t i = 0; i < table.size(); ++i) {
    std::uint32_t crc = i;
    for (int bit = 0; bit < 8; ++bit) crc = (crc >> 1) ^ ((crc & 1) != 0 ? kCastagnoli : 0);
    table[i] = crc;
  }
  return table;
}

#if defined(__x86_64__)
[[gnu::target("sse4.2")]] std::uint32_t crc32c_hardware(std::uint32_t crc, std::string_view data) {
  // Eight bytes per instruction, then what is left over.
  std::uint64_t state = ~crc;
  const char* at = data.data();
  std::size_t left = data.size();
  for (; left >= 8; at += 8, left -= 8) {
    std::uint64_t word = 0;
    std::memcpy(&word, at, sizeof word);
    state = __builtin_ia32_crc32di(state, word);
  }
  auto narrow = static_cast<std::uint32_t>(state);
  if (left >= 4) {
    std::uint32_t word = 0;
    std::memcpy(&word, at, sizeof word);
    narrow = __builtin_ia32_crc32si(narrow, word);
    at += 4;
    left -= 4;
  }
  for (; left > 0; ++at, --left) {
    narrow = __builtin_ia32_crc32qi(narrow, static_cast<unsigned char>(*at));
  }
  return ~narrow;
}
#endif

}  // namespace

bool prepare_digests() {
  // EVP_MD_fetch() crashes when the library could not initialise itself for want of memory.
  if (OPENSSL_init_crypto(OPENSSL_INIT_LOAD_CONFIG, nullptr) != 1) return false;
  const std::unique_ptr<EVP_MD_CTX, decltype(&EVP_MD_CTX_free)> context(EVP_MD_CTX_new(),
                                                                        &EVP_MD_CTX_free);
  return context && fetch_sha256() != nullptr &&
         EVP_DigestInit_ex2(context.get(), fetch_sha256(), nullptr) == 1;
}

Sha256::Sha256() : context_(EVP_MD_CTX_new()) {
  if (context_ == nullptr ||
      EVP_DigestInit_ex2(context_of(context_), sha256_algorithm(), nullptr) != 1) {
    fatal_sha256();
  }
}

Sha256::~Sha256() { EVP_MD_CTX_free(context_of(context_)); }

void Sha256::update(std::string_view bytes) {
  if (bytes.empty()) return;
  if (EVP_DigestUpdate(context_of(context_), bytes.data(), bytes.size()) != 1) fatal_sha256();
}

Sha256Digest Sha256::finish() {
  Sha256Digest digest{};
  unsigned size = 0;
  if (EVP_DigestFinal_ex(context_of(context_), digest.data(), &size) != 1 ||
      size != digest.size()) {
    fatal_sha256();
  }
  return digest;
}

Sha256Digest sha256(std::string_view bytes) {
  Sha256 hash;
  hash.update(bytes);
  return hash.finish();
}

HexDigest to_hex(const Sha256Digest& digest) {
  std::array<char, 2 * kSha256Size> text{};
  for (std::size_t i = 0; i < digest.size(); ++i) {
    text[2 * i] = kHexDigits[digest[i] >> 4];
    text[2 * i + 1] = kHexDigits[digest[i] & 15];
  }
  HexDigest out;
  out.set_truncated({text.data(), text.size()});
  return out;
}

HexDigest hmac_sha256_hex(std::string_view key, std::string_view data) {
  Sha256Digest digest{};
  unsigned size = 0;
  if (HMAC(sha256_algorithm(), key.data(), static_cast<int>(key.size()),
           reinterpret_cast<const unsigned char*>(data.data()), data.size(), digest.data(),
           &size) == nullptr ||
      size != digest.size()) {
    fatal_sha256();
  }
  return to_hex(digest);
}

bool equal_constant_time(std::string_view a, std::string_view b) {
  // The length of a signature or a secret is no secret.
  return a.size() == b.size() && CRYPTO_memcmp(a.data(), b.data(), a.size()) == 0;
}

std::uint32_t crc32c_portable(std::uint32_t crc, std::string_view data) {
  static const CrcTable table = make_crc_table();
  crc = ~crc;
  for (const char c : data) crc = (crc >> 8) ^ table[(crc ^ static_cast<unsigned char>(c)) & 0xFF];
  return ~crc;
}

std::uint32_t crc32c(std::uint32_t crc, std::string_view data) {
#if defined(__x86_64__)
  if (__builtin_cpu_supports("sse4.2")) return crc32c_hardware(crc, data);
#endif
  return crc32c_portable(crc, data);
}

}  // namespace orv
