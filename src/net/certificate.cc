#include "net/certificate.h"

#include <arpa/inet.h>
#include <openssl/asn1.h>
#include <openssl/bio.h>
#include <openssl/bn.h>
#include <openssl/err.h>
#include <openssl/evp.h>
#include <openssl/pem.h>
#include <openssl/rand.h>
#include <openssl/x509.h>
#include <openssl/x509v3.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

#include <array>
#include <cstdio>
#include <memory>
#include <string>
#include <string_view>
#include <utility>

#include "common/message.h"
#include "common/replacement_file.h"
#include "common/text.h"
#include "net/pem.h"

namespace orv {
namespace {

template <auto kFree>
struct Free {
  template <typename T>
  void operator()(T* object) const {
    kFree(object);
  }
};
using Key = std::unique_ptr<EVP_PKEY, Free<EVP_PKEY_free>>;
using Certificate = std::unique_ptr<X509, Free<X509_free>>;
using Bio = std::unique_ptr<BIO, Free<BIO_free_all>>;
using Number = std::unique_ptr<BIGNUM, Free<BN_free>>;
using Name = std::unique_ptr<GENERAL_NAME, Free<GENERAL_NAME_free>>;
using Names = std::unique_ptr<GENERAL_NAMES, Free<GENERAL_NAMES_free>>;
using String = std::unique_ptr<ASN1_STRING, Free<ASN1_STRING_free>>;

constexpr std::size_t kSerialSize = 16;  // bytes

// A failed call leaves entries in the library's error queue that nobody reads.
struct ErrorQueue {
  ErrorQueue() = default;
  ErrorQueue(const ErrorQueue&) = delete;
  ErrorQueue& operator=(const ErrorQueue&) = delete;
  ~ErrorQueue() { ::ERR_clear_error(); }
};

bool set_serial(X509* cert) {
  std::array<unsigned char, kSerialSize> bytes{};
  if (::RAND_bytes(bytes.data(), kSerialSize) != 1) return false;
  bytes[0] &= 0x7F;  // the number is positive
  const Number serial(::BN_bin2bn(bytes.data(), kSerialSize, nullptr));
  return serial && ::BN_to_ASN1_INTEGER(serial.get(), ::X509_get_serialNumber(cert)) != nullptr;
}

bool set_validity(X509* cert, int days) {
  return ::X509_gmtime_adj(::X509_getm_notBefore(cert), 0) != nullptr &&
         ::X509_time_adj_ex(::X509_getm_notAfter(cert), days, 0, nullptr) != nullptr;
}

bool set_names(X509* cert, const char* common_name) {
  X509_NAME* name = ::X509_get_subject_name(cert);
  const auto* text = reinterpret_cast<const unsigned char*>(common_name);
  return ::X509_NAME_add_entry_by_txt(name, "CN", MBSTRING_UTF8, text, -1, -1, 0) == 1 &&
         ::X509_set_issuer_name(cert, name) == 1;
}

// The bytes of the alternative name and their kind: an address, or the text itself.
struct AlternativeName {
  int kind = GEN_DNS;
  int string_type = V_ASN1_IA5STRING;
  std::array<unsigned char, 16> address{};
  std::size_t address_size = 0;
};

AlternativeName classify(const char* common_name) {
  AlternativeName name;
  // As strictly as inet_pton(3) reads: "10.1" is a name, though some resolvers take it for an
  // address.
  const auto parses = [&](int family) {
    return ::inet_pton(family, common_name, name.address.data()) == 1;
  };
  if (parses(AF_INET)) {
    name.address_size = 4;
  } else if (parses(AF_INET6)) {
    name.address_size = 16;
  }
  if (name.address_size == 0) return name;
  name.kind = GEN_IPADD;
  name.string_type = V_ASN1_OCTET_STRING;
  return name;
}

// Built as an object, not from an extension text: there a comma or a colon in the common name would
// bring in further names.
bool add_alternative_name(X509* cert, const char* common_name) {
  const AlternativeName kind = classify(common_name);
  String value(::ASN1_STRING_type_new(kind.string_type));
  Name name(::GENERAL_NAME_new());
  const Names names(::GENERAL_NAMES_new());
  if (!value || !name || !names) return false;
  const bool address = kind.kind == GEN_IPADD;
  const void* bytes = address ? static_cast<const void*>(kind.address.data()) : common_name;
  const std::size_t size = address ? kind.address_size : ::strlen(common_name);
  if (::ASN1_STRING_set(value.get(), bytes, static_cast<int>(size)) != 1) return false;
  ::GENERAL_NAME_set0_value(name.get(), kind.kind, value.release());
  if (::sk_GENERAL_NAME_push(names.get(), name.get()) <= 0) return false;
  (void)name.release();  // the list owns it now
  return ::X509_add1_ext_i2d(cert, NID_subject_alt_name, names.get(), 0, X509V3_ADD_DEFAULT) == 1;
}

Certificate make_certificate(EVP_PKEY* key, const char* common_name, int days) {
  Certificate cert(::X509_new());
  // The signature comes last: it covers everything before it.
  if (!cert || !set_serial(cert.get())) return nullptr;
  if (::X509_set_version(cert.get(), X509_VERSION_3) != 1) return nullptr;
  if (!set_validity(cert.get(), days) || ::X509_set_pubkey(cert.get(), key) != 1) return nullptr;
  if (!set_names(cert.get(), common_name)) return nullptr;
  if (!add_alternative_name(cert.get(), common_name)) return nullptr;
  if (::X509_sign(cert.get(), key, ::EVP_sha256()) <= 0) return nullptr;
  return cert;
}

std::string_view text_of(BIO* memory) {
  char* text = nullptr;
  const long size = ::BIO_get_mem_data(memory, &text);
  return {text, size > 0 ? static_cast<std::size_t>(size) : 0};
}

Bio key_text(EVP_PKEY* key) {
  Bio memory(::BIO_new(::BIO_s_mem()));  // wiped by the library when it is freed
  if (!memory) return nullptr;
  const int rc =
      ::PEM_write_bio_PrivateKey(memory.get(), key, nullptr, nullptr, 0, nullptr, nullptr);
  return rc == 1 ? std::move(memory) : nullptr;
}

Bio certificate_text(X509* cert) {
  Bio memory(::BIO_new(::BIO_s_mem()));
  return memory && ::PEM_write_bio_X509(memory.get(), cert) == 1 ? std::move(memory) : nullptr;
}

std::string temporary_name(const char* path) {
  return pair_temporary_prefix(path) + std::to_string(::getpid());
}

// Everything but the rename. The temporary file is nobody else's, whatever it will be later.
bool prepare(ReplacementFile& file, BIO* memory, mode_t final_mode) {
  return memory != nullptr && file.create(0600) == ErrorCode::Ok &&
         ::fchmod(file.fd(), final_mode) == 0 && file.write(text_of(memory)) == ErrorCode::Ok &&
         file.finish() == ErrorCode::Ok;
}

// A crash between the two renames leaves a pair that does not belong together, which
// cert_load_pair() finds out.
bool replace_pair(const char* cert_path, X509* cert, const char* key_path, EVP_PKEY* key) {
  ReplacementFile key_file(temporary_name(key_path));
  ReplacementFile cert_file(temporary_name(cert_path));
  return prepare(key_file, key_text(key).get(), 0600) &&
         prepare(cert_file, certificate_text(cert).get(), 0644) &&
         key_file.move_to(key_path, DirectoryFlush::Yes) == ErrorCode::Ok &&
         cert_file.move_to(cert_path, DirectoryFlush::Yes) == ErrorCode::Ok;
}

bool exists(const char* path) {
  struct stat status {};
  return ::stat(path, &status) == 0;
}

// An encrypted file must not make the library ask for its password on the terminal.
int no_password(char* /*buffer*/, int /*size*/, int /*writing*/, void* /*context*/) { return -1; }

Bio reader_of(std::string_view text) {
  return Bio(::BIO_new_mem_buf(text.data(), static_cast<int>(text.size())));
}

Certificate parse_certificate(std::string_view pem) {
  const Bio memory = reader_of(pem);
  if (!memory) return nullptr;
  return Certificate(::PEM_read_bio_X509(memory.get(), nullptr, no_password, nullptr));
}

Key parse_key(std::string_view pem) {
  const Bio memory = reader_of(pem);
  if (!memory) return nullptr;
  return Key(::PEM_read_bio_PrivateKey(memory.get(), nullptr, no_password, nullptr));
}

}  // namespace

ErrorCode cert_create(const char* cert_path, const char* key_path, const char* common_name,
                      int days, bool force) {
  if (cert_path == nullptr || key_path == nullptr || common_name == nullptr) {
    return ErrorCode::Invalid;
  }
  // Half a pair counts too: what is there may be the half that has no copy.
  if (!force && (exists(cert_path) || exists(key_path))) return ErrorCode::AlreadyExists;
  const ErrorQueue errors;
  const Key key(::EVP_PKEY_Q_keygen(nullptr, nullptr, "EC", "P-256"));
  if (!key) return ErrorCode::IoError;
  const Certificate cert =
      make_certificate(key.get(), common_name, days < 1 ? kCertificateDays : days);
  if (!cert) return ErrorCode::IoError;
  const bool replaced = replace_pair(cert_path, cert.get(), key_path, key.get());
  return replaced ? ErrorCode::Ok : ErrorCode::IoError;
}

// In the directory of the file itself: only there can it be renamed into place.
std::string pair_temporary_prefix(const std::string& path) { return path + ".tmp."; }

// Of a chain, the first certificate counts, as it does for a TLS server.
PairFault cert_check_pair(std::string_view cert_pem, std::string_view key_pem) {
  const ErrorQueue errors;
  const Certificate cert = parse_certificate(cert_pem);
  if (!cert) return PairFault::NoCertificate;
  const Key key = parse_key(key_pem);
  if (!key) return PairFault::NoKey;
  return ::X509_check_private_key(cert.get(), key.get()) == 1 ? PairFault::None
                                                              : PairFault::NotItsKey;
}

CertPair cert_load_pair(const char* cert_path, const char* key_path, SecretString& cert_pem,
                        SecretString& key_pem, std::span<char> err) {
  SecretString cert_text;
  SecretString key_text;
  if (read_pem_file(cert_path, cert_text, err) != 0 ||
      read_pem_file(key_path, key_text, err) != 0) {
    return CertPair::Unreadable;
  }
  // The message names the file that has to be mended, not what the library calls the fault.
  switch (cert_check_pair(cert_text, key_text)) {
    case PairFault::NoCertificate:
      (void)fail(err, "%s holds no certificate", cert_path);
      return CertPair::Unusable;
    case PairFault::NoKey:
      (void)fail(err, "%s holds no private key without a password", key_path);
      return CertPair::Unusable;
    case PairFault::NotItsKey:
      (void)fail(err, "%s is not the key of %s", key_path, cert_path);
      return CertPair::Unusable;
    case PairFault::None: break;
  }
  cert_pem = std::move(cert_text);
  key_pem = std::move(key_text);
  return CertPair::Usable;
}

ErrorCode cert_fingerprint(const char* cert_path, std::span<char> out) {
  if (out.size() < kFingerprintSize) return ErrorCode::Invalid;
  std::unique_ptr<FILE, Free<std::fclose>> file(std::fopen(cert_path, "rbe"));
  if (!file) return ErrorCode::NotFound;
  // The first certificate of the file: of a chain, the one that the server shows as its own.
  const ErrorQueue errors;
  const Certificate cert(::PEM_read_X509(file.get(), nullptr, no_password, nullptr));
  if (!cert) return ErrorCode::Invalid;
  std::array<unsigned char, EVP_MAX_MD_SIZE> digest{};
  unsigned size = 0;
  if (::X509_digest(cert.get(), ::EVP_sha256(), digest.data(), &size) != 1 || size != 32) {
    return ErrorCode::IoError;
  }
  char* p = out.data();
  for (unsigned i = 0; i < size; ++i) {
    *p++ = kUpperHexDigits[digest[i] >> 4];
    *p++ = kUpperHexDigits[digest[i] & 15];
    *p++ = i + 1 < size ? ':' : '\0';
  }
  return ErrorCode::Ok;
}

}  // namespace orv
