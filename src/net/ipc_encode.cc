// Building records: header, items, and one encoder for each type.
#include <string.h>

#include <algorithm>

#include "common/endian.h"
#include "net/ipc.h"
#include "net/ipc_tags.h"

namespace orv {
namespace {

using namespace ipc;

constexpr std::size_t kPayloadLengthAt = 12;  // in the header

// Collects the outcome of a row of items: one that does not fit spoils the record, the others are
// still written.
class Items {
 public:
  Items(IpcMessage& msg, MessageType type, std::uint32_t id) : msg_(msg) {
    ipc_begin(msg, type, id);
  }
  Items& text(std::uint16_t tag, std::string_view value) {
    return note(ipc_put_string(msg_, tag, value));
  }
  Items& text_if_set(std::uint16_t tag, std::string_view value) {
    return value.empty() ? *this : text(tag, value);
  }
  Items& bytes(std::uint16_t tag, std::string_view value, std::size_t limit) {
    return value.size() > limit ? note(-1) : note(ipc_put_bytes(msg_, tag, value));
  }
  Items& number(std::uint16_t tag, std::uint32_t value) {
    return note(ipc_put_u32(msg_, tag, value));
  }
  [[nodiscard]] int result() const { return result_; }

 private:
  Items& note(int rc) {
    if (rc != 0) result_ = -1;
    return *this;
  }
  IpcMessage& msg_;
  int result_ = 0;
};

}  // namespace

void IpcMessage::wipe() noexcept {
  ::explicit_bzero(bytes.data(), std::max(length, dirty));
  length = 0;
  dirty = 0;
}

void ipc_begin(IpcMessage& msg, MessageType type, std::uint32_t id) {
  msg.dirty = std::max(msg.dirty, msg.length);
  unsigned char* p = msg.bytes.data();
  ::memcpy(p, kIpcMagic.data(), kIpcMagic.size());
  store_le16(p + 4, kIpcVersion);
  store_le16(p + 6, static_cast<std::uint16_t>(type));
  store_le32(p + 8, id);
  store_le32(p + kPayloadLengthAt, 0);
  msg.length = kIpcHeaderSize;
}

int ipc_put_bytes(IpcMessage& msg, std::uint16_t tag, std::string_view bytes) {
  const std::size_t room = kIpcMaxRecord - msg.length;
  if (room < kItemHeaderSize || bytes.size() > room - kItemHeaderSize) return -1;
  unsigned char* p = msg.bytes.data() + msg.length;
  store_le16(p, tag);
  store_le32(p + 2, static_cast<std::uint32_t>(bytes.size()));
  if (!bytes.empty()) ::memcpy(p + kItemHeaderSize, bytes.data(), bytes.size());
  msg.length += kItemHeaderSize + bytes.size();
  store_le32(msg.bytes.data() + kPayloadLengthAt,
             static_cast<std::uint32_t>(msg.length - kIpcHeaderSize));
  return 0;
}

int ipc_put_string(IpcMessage& msg, std::uint16_t tag, std::string_view text) {
  if (text.find('\0') != std::string_view::npos) return -1;
  return ipc_put_bytes(msg, tag, text);
}

int ipc_put_u32(IpcMessage& msg, std::uint16_t tag, std::uint32_t value) {
  unsigned char bytes[4];
  store_le32(bytes, value);
  char chars[4];
  ::memcpy(chars, bytes, sizeof chars);
  return ipc_put_bytes(msg, tag, {chars, sizeof chars});
}

int ipc_encode_hello(IpcMessage& msg, std::uint32_t pid) {
  return Items(msg, MessageType::Hello, 0).number(kHelloPid, pid).result();
}

int ipc_encode_mail_config(IpcMessage& msg, std::uint32_t id, const IpcMailConfig& config) {
  Items items(msg, MessageType::MailConfig, id);
  items.text(kMailHost, config.host.view())
      .number(kMailPort, config.port)
      .number(kMailTlsMode, config.tls_mode)
      .text_if_set(kMailUser, config.user.view())
      .text_if_set(kMailPassword, config.password.view())
      .text(kMailFrom, config.from.view());
  for (const auto& recipient : config.recipients) items.text(kMailRecipient, recipient.view());
  return items.text_if_set(kMailCaFile, config.ca_file.view())
      .number(kMailTimeout, config.timeout_s)
      .result();
}

int ipc_encode_mail_send(IpcMessage& msg, std::uint32_t id, std::string_view subject,
                         std::string_view body) {
  return Items(msg, MessageType::MailSend, id)
      .text(kSendSubject, subject)
      .text(kSendBody, body)
      .result();
}

int ipc_encode_mail_result(IpcMessage& msg, std::uint32_t id, std::uint32_t status,
                           std::string_view error) {
  Items items(msg, MessageType::MailResult, id);
  items.number(kResultStatus, status);
  if (status == 0) return items.result();
  // The text is a foreign server's: a NUL in it ends it here rather than spoiling the record.
  error = error.substr(0, error.find('\0'));
  if (error.empty()) error = "unknown error";
  return items.text(kResultError, error.substr(0, kIpcMaxMailError)).result();
}

int ipc_encode_api_config(IpcMessage& msg, std::uint32_t id, std::string_view certificate,
                          std::string_view key, std::uint32_t max_clients) {
  return Items(msg, MessageType::ApiConfig, id)
      .text(kApiCertificate, certificate)
      .text(kApiKey, key)
      .number(kApiMaxClients, max_clients)
      .result();
}

int ipc_encode_api_request(IpcMessage& msg, std::uint32_t id, const ApiRequest& request) {
  Items items(msg, MessageType::ApiRequest, id);
  items.text(kRequestMethod, request.method.view())
      .text(kRequestPath, request.path.view())
      .text_if_set(kRequestQuery, request.query.view())
      .text_if_set(kRequestAuthorization, request.authorization.view())
      .text_if_set(kRequestIfMatch, request.if_match.view())
      .text(kRequestClient, request.client.view());
  if (!request.body.empty()) items.bytes(kRequestBody, request.body, kIpcMaxRequestBody);
  return items.result();
}

int ipc_encode_api_response(IpcMessage& msg, std::uint32_t id, const ApiResponse& response) {
  Items items(msg, MessageType::ApiResponse, id);
  items.number(kResponseStatus, response.status)
      .text_if_set(kResponseEtag, response.etag.view())
      .text_if_set(kResponseSignature, response.signature.view());
  if (response.auth_failed) items.number(kResponseAuthFailed, 1);
  return items.bytes(kResponseBody, response.body, kIpcMaxResponseBody).result();
}

}  // namespace orv
