#include "net/certificate.h"

#include <arpa/inet.h>
#include <errno.h>
#include <fcntl.h>
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
#include <string_view>

#include "common/files.h"

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
  if (!cert || !set_serial(cert.get())) return nullptr;
  if (::X509_set_version(cert.get(), X509_VERSION_3) != 1) return nullptr;
  if (!set_validity(cert.get(), days) || ::X509_set_pubkey(cert.get(), key) != 1) return nullptr;
  if (!set_names(cert.get(), common_name)) return nullptr;
  if (!add_alternative_name(cert.get(), common_name)) return nullptr;
  if (::X509_sign(cert.get(), key, ::EVP_sha256()) <= 0) return nullptr;
  return cert;
}

// Writes what the memory holds, and closes with a look at the result: a full disk may show only
// there.
ErrorCode write_and_close(ScopedFd file, BIO* memory) {
  char* text = nullptr;
  const long size = ::BIO_get_mem_data(memory, &text);
  if (!file.valid() || size <= 0) return ErrorCode::IoError;
  const ErrorCode rc =
      write_all(file.get(), std::string_view(text, static_cast<std::size_t>(size)));
  const bool closed = ::close(file.release()) == 0;
  return rc == ErrorCode::Ok && closed ? ErrorCode::Ok : ErrorCode::IoError;
}

ErrorCode write_key(const char* path, EVP_PKEY* key, bool exclusive) {
  const Bio memory(::BIO_new(::BIO_s_mem()));  // wiped by the library when it is freed
  if (!memory) return ErrorCode::IoError;
  if (::PEM_write_bio_PrivateKey(memory.get(), key, nullptr, nullptr, 0, nullptr, nullptr) != 1) {
    return ErrorCode::IoError;
  }
  if (exclusive && ::unlink(path) != 0 && errno != ENOENT) return ErrorCode::IoError;
  const int flags = O_WRONLY | O_CREAT | (exclusive ? O_EXCL : O_TRUNC);
  return write_and_close(open_file(path, flags, 0600), memory.get());
}

ErrorCode write_certificate(const char* path, X509* cert) {
  const Bio memory(::BIO_new(::BIO_s_mem()));
  if (!memory || ::PEM_write_bio_X509(memory.get(), cert) != 1) return ErrorCode::IoError;
  return write_and_close(open_file(path, O_WRONLY | O_CREAT | O_TRUNC, 0644), memory.get());
}

bool exists(const char* path) {
  struct stat status {};
  return ::stat(path, &status) == 0;
}

// An encrypted file must not make the library ask for its password on the terminal.
int no_password(char* /*buffer*/, int /*size*/, int /*writing*/, void* /*context*/) { return -1; }

}  // namespace

ErrorCode cert_create(const char* cert_path, const char* key_path, const char* common_name,
                      int days, bool force, bool exclusive_key) {
  if (cert_path == nullptr || key_path == nullptr || common_name == nullptr) {
    return ErrorCode::Invalid;
  }
  if (!force && (exists(cert_path) || exists(key_path))) return ErrorCode::AlreadyExists;
  const ErrorQueue errors;
  const Key key(::EVP_PKEY_Q_keygen(nullptr, nullptr, "EC", "P-256"));
  if (!key) return ErrorCode::IoError;
  const Certificate cert =
      make_certificate(key.get(), common_name, days < 1 ? kCertificateDays : days);
  if (!cert) return ErrorCode::IoError;
  const ErrorCode rc = write_key(key_path, key.get(), exclusive_key);
  return rc == ErrorCode::Ok ? write_certificate(cert_path, cert.get()) : rc;
}

ErrorCode cert_fingerprint(const char* cert_path, std::span<char> out) {
  if (out.size() < kFingerprintSize) return ErrorCode::Invalid;
  std::unique_ptr<FILE, Free<std::fclose>> file(std::fopen(cert_path, "rbe"));
  if (!file) return ErrorCode::NotFound;
  const ErrorQueue errors;
  const Certificate cert(::PEM_read_X509(file.get(), nullptr, no_password, nullptr));
  if (!cert) return ErrorCode::Invalid;
  std::array<unsigned char, EVP_MAX_MD_SIZE> digest{};
  unsigned size = 0;
  if (::X509_digest(cert.get(), ::EVP_sha256(), digest.data(), &size) != 1 || size != 32) {
    return ErrorCode::IoError;
  }
  static constexpr std::string_view kDigits = "0123456789ABCDEF";
  char* p = out.data();
  for (unsigned i = 0; i < size; ++i) {
    *p++ = kDigits[digest[i] >> 4];
    *p++ = kDigits[digest[i] & 15];
    *p++ = i + 1 < size ? ':' : '\0';
  }
  return ErrorCode::Ok;
}

}  // namespace orv
