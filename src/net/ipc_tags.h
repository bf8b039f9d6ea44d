// The numbers of the records' items and the limits of their values: each stands here once, for the
// encoders, the decoders and the fields of the decoded records alike.
#ifndef ORV_NET_IPC_TAGS_H_
#define ORV_NET_IPC_TAGS_H_

#include <cstddef>
#include <cstdint>

namespace orv {

// Longest values in bytes. Addresses are bounded by common/mail_address.h.
inline constexpr std::size_t kIpcMaxHost = 255;
inline constexpr std::size_t kIpcMaxUser = 255;
inline constexpr std::size_t kIpcMaxPassword = 64;
inline constexpr std::size_t kIpcMaxCaFile = 511;
inline constexpr std::size_t kIpcMaxMailError = 511;
inline constexpr std::size_t kIpcMaxPem = 16384;
inline constexpr std::size_t kIpcMaxMethod = 8;
inline constexpr std::size_t kIpcMaxPath = 2048;
inline constexpr std::size_t kIpcMaxQuery = 1024;
inline constexpr std::size_t kIpcMaxAuthorization = 512;
inline constexpr std::size_t kIpcMaxIfMatch = 128;
inline constexpr std::size_t kIpcMaxClient = 63;
inline constexpr std::size_t kIpcMaxRequestBody = 32768;
inline constexpr std::size_t kIpcMaxEtag = 79;
inline constexpr std::size_t kIpcMaxSignature = 64;
inline constexpr std::size_t kIpcMaxResponseBody = 61440;

// Greatest numbers.
inline constexpr std::uint32_t kIpcMaxPort = 65535;
inline constexpr std::uint32_t kIpcMaxTlsMode = 2;
inline constexpr std::uint32_t kIpcMaxClients = 256;
inline constexpr std::uint32_t kIpcMinHttpStatus = 100;
inline constexpr std::uint32_t kIpcMaxHttpStatus = 599;

namespace ipc {

enum Tag : std::uint16_t {
  kHelloPid = 1,

  kMailHost = 10,
  kMailPort = 11,
  kMailTlsMode = 12,
  kMailUser = 13,
  kMailPassword = 14,
  kMailFrom = 15,
  kMailRecipient = 16,  // the one tag that may stand more than once
  kMailCaFile = 17,
  kMailTimeout = 18,

  kSendSubject = 20,
  kSendBody = 21,

  kResultStatus = 30,
  kResultError = 31,

  kApiCertificate = 40,
  kApiKey = 41,
  kApiMaxClients = 42,

  kRequestMethod = 50,
  kRequestPath = 51,
  kRequestQuery = 52,
  kRequestAuthorization = 53,
  kRequestIfMatch = 54,
  kRequestClient = 55,
  kRequestBody = 56,
  kRequestLast = 63,  // up to here the tags are kept for requests

  kResponseStatus = 60,
  kResponseEtag = 61,
  kResponseSignature = 62,
  kResponseBody = 63,
  kResponseAuthFailed = 64,
  kResponseLast = 69,  // up to here the tags are kept for responses
};

}  // namespace ipc
}  // namespace orv

#endif  // ORV_NET_IPC_TAGS_H_
