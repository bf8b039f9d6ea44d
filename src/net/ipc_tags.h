// The numbers of the records' items and the limits of their values: each stands here once, for the
// encoders, the decoders and the fields of the decoded records alike.
#ifndef ORV_NET_IPC_TAGS_H_
#define ORV_NET_IPC_TAGS_H_

#include <cstddef>
#include <cstdint>

namespace orv {

// Longest values in bytes. Addresses are bounded by common/mail_address.h. Those of [mail] are as
// long as the configuration's own fields, so that settings that loaded always fit into a record.
inline constexpr std::size_t kIpcMaxHost = 255;
inline constexpr std::size_t kIpcMaxUser = 255;
inline constexpr std::size_t kIpcMaxPassword = 64;
inline constexpr std::size_t kIpcMaxCaFile = 511;
inline constexpr std::size_t kIpcMaxMailError = 511;  // the sender cuts a longer text
inline constexpr std::size_t kIpcMaxPem = 16384;      // of the certificate, and of the key
inline constexpr std::size_t kIpcMaxMethod = 8;       // longer than any method that is allowed
inline constexpr std::size_t kIpcMaxPath = 2048;  // a longer path or query is a 414 to the client
inline constexpr std::size_t kIpcMaxQuery = 1024;
inline constexpr std::size_t kIpcMaxAuthorization = 512;  // longer headers are a 431
inline constexpr std::size_t kIpcMaxIfMatch = 128;
inline constexpr std::size_t kIpcMaxClient = 63;          // holds an IPv6 address with its zone
inline constexpr std::size_t kIpcMaxRequestBody = 32768;  // a longer body is a 413
inline constexpr std::size_t kIpcMaxEtag = 79;
inline constexpr std::size_t kIpcMaxSignature = 64;        // HMAC-SHA-256 in hexadecimal
inline constexpr std::size_t kIpcMaxResponseBody = 61440;  // leaves 4 KiB of a record to the head

// Greatest and smallest numbers.
inline constexpr std::uint32_t kIpcMaxPort = 65535;
inline constexpr std::uint32_t kIpcMaxTlsMode = 2;
inline constexpr std::uint32_t kIpcMaxClients = 256;  // as [api] max-clients
inline constexpr std::uint32_t kIpcMinHttpStatus = 100;
inline constexpr std::uint32_t kIpcMaxHttpStatus = 599;

namespace ipc {

// A tag means something within its record type only: the ranges of requests and responses overlap.
// "Optional" items are left out when there is nothing to say; every other item must be there.
enum Tag : std::uint16_t {
  kHelloPid = 1,  // number: the sender's process id

  kMailHost = 10,       // text, not empty
  kMailPort = 11,       // number, 1..kIpcMaxPort
  kMailTlsMode = 12,    // number: 0 none, 1 STARTTLS, 2 TLS from the start
  kMailUser = 13,       // text, optional; with it goes the password
  kMailPassword = 14,   // text, optional; secret
  kMailFrom = 15,       // address
  kMailRecipient = 16,  // address; the one tag that may stand more than once
  kMailCaFile = 17,     // path, optional: else the system's certificates
  kMailTimeout = 18,    // number of seconds, not 0

  kSendSubject = 20,  // text without line breaks, may be empty
  kSendBody = 21,     // text with any line ends, may be empty

  kResultStatus = 30,  // number: 0 sent, any other failed
  kResultError = 31,   // text; there exactly when the status is not 0

  kApiCertificate = 40,  // PEM
  kApiKey = 41,          // PEM; secret
  kApiMaxClients = 42,   // number, 1..kIpcMaxClients

  // Texts of a request are printable ASCII: they come from strangers and go to logs.
  kRequestMethod = 50,         // text, one of kApiMethods
  kRequestPath = 51,           // text that begins with a slash
  kRequestQuery = 52,          // text after the "?", optional
  kRequestAuthorization = 53,  // the header's value, optional; secret
  kRequestIfMatch = 54,        // the header's value, optional
  kRequestClient = 55,         // text: the client's address
  kRequestBody = 56,           // bytes, optional
  kRequestLast = 63,           // up to here the tags are kept for requests

  kResponseStatus = 60,      // number, kIpcMinHttpStatus..kIpcMaxHttpStatus
  kResponseEtag = 61,        // text, optional
  kResponseSignature = 62,   // text, optional
  kResponseBody = 63,        // bytes, may be empty
  kResponseAuthFailed = 64,  // number, optional: not 0 counts against the client's address
  kResponseLast = 69,        // up to here the tags are kept for responses
};

}  // namespace ipc
}  // namespace orv

#endif  // ORV_NET_IPC_TAGS_H_
