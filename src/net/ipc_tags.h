// The item tags of each record, as both the encoders and the decoders number them.
#ifndef ORV_NET_IPC_TAGS_H_
#define ORV_NET_IPC_TAGS_H_

#include <cstddef>
#include <cstdint>

namespace orv::ipc {

inline constexpr std::size_t kItemHeaderSize = 6;  // tag and length

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

  kResponseStatus = 60,
  kResponseEtag = 61,
  kResponseSignature = 62,
  kResponseBody = 63,
  kResponseAuthFailed = 64,
};

}  // namespace orv::ipc

#endif  // ORV_NET_IPC_TAGS_H_
