// The seven record types: a table of fields each, and what makes a record complete.
#include "net/ipc_items.h"

namespace orv {
namespace {

using namespace ipc;

const char* nothing_missing(const IpcHello& /*record*/, const Seen& /*seen*/) { return nullptr; }

constexpr ItemRow<IpcHello> kHelloItems[] = {
    row<Number<&IpcHello::pid>>(kHelloPid, "bad pid"),
};
constexpr RecordType<IpcHello> kHello = {.type = MessageType::Hello,
                                         .name = "HELLO",
                                         .first = kHelloPid,
                                         .last = kHelloPid,
                                         .items = kHelloItems,
                                         .missing = nothing_missing,
                                         .empty = "no pid"};

// The one field that is a row of items.
struct Recipients {
  using Record = IpcMailConfig;
  // Checks the count first: a 17th recipient is one too many even when it is malformed.
  static const char* store(Record& out, std::string_view value, const char* fault) {
    if (out.recipients.size() == kMaxRecipients) return "too many recipients";
    if (!check_mail_address(value)) return fault;
    return out.recipients.emplace_back().set(value) ? nullptr : fault;
  }
  static int put(IpcMessage& msg, Tag tag, const Record& record) {
    int result = 0;
    for (const auto& recipient : record.recipients) {
      if (ipc_put_string(msg, tag, recipient.view()) != 0) result = -1;
    }
    return result;
  }
};

// Whatever a row refuses when it is empty or zero is complete as soon as its tag was seen.
const char* mail_config_missing(const IpcMailConfig& record, const Seen& seen) {
  for (const Tag tag :
       {kMailHost, kMailPort, kMailFrom, kMailRecipient, kMailTimeout, kMailTlsMode}) {
    if (!seen.has(tag)) return "incomplete";
  }
  if (record.user.empty() == record.password.empty()) return nullptr;
  return "user and password go together";
}

// clang-format off
constexpr ItemRow<IpcMailConfig> kMailConfigItems[] = {
    row<Text<&IpcMailConfig::host, Sent::Always, some_text>>(kMailHost, "bad host"),
    row<Number<&IpcMailConfig::port, 1, kIpcMaxPort>>(kMailPort, "bad port"),
    row<Number<&IpcMailConfig::tls_mode, 0, kIpcMaxTlsMode>>(kMailTlsMode, "bad tls mode"),
    row<Text<&IpcMailConfig::user, Sent::IfSet>>(kMailUser, "bad user"),
    row<Text<&IpcMailConfig::password, Sent::IfSet>>(kMailPassword, "bad password"),
    row<Text<&IpcMailConfig::from, Sent::Always, check_mail_address>>(kMailFrom, "bad from"),
    row<Recipients>(kMailRecipient, "bad recipient", true),
    row<Text<&IpcMailConfig::ca_file, Sent::IfSet>>(kMailCaFile, "bad ca-file"),
    row<Number<&IpcMailConfig::timeout_s, 1>>(kMailTimeout, "bad timeout"),
};
// clang-format on
constexpr RecordType<IpcMailConfig> kMailConfig = {.type = MessageType::MailConfig,
                                                   .name = "MAIL_CONFIG",
                                                   .first = kMailHost,
                                                   .last = kMailTimeout,
                                                   .items = kMailConfigItems,
                                                   .missing = mail_config_missing,
                                                   .repeated = "duplicate tag"};

// A text that goes into a buffer of the receiver's: shorter than `room`, which counts the NUL.
struct Line {
  std::string_view text;
  std::size_t room = SIZE_MAX;
  [[nodiscard]] bool set(std::string_view value) {
    if (value.size() >= room) return false;
    text = value;
    return true;
  }
  [[nodiscard]] std::string_view view() const { return text; }
};

// Copies the text into the receiver's buffer, which may have no room even for the NUL.
void copy_line(const Line& line, std::span<char> into) {
  if (!into.empty()) *std::copy(line.text.begin(), line.text.end(), into.begin()) = '\0';
}

struct MailSend {
  Line subject, body;
};

struct Subject : Text<&MailSend::subject, Sent::Always> {
  static const char* store(MailSend& out, std::string_view value, const char* fault) {
    if (const char* complaint = Text::store(out, value, fault)) return complaint;
    const bool broken = value.find_first_of("\r\n") != std::string_view::npos;
    return broken ? "subject contains a line break" : nullptr;
  }
};

// Both may be empty, but not left out.
const char* mail_send_missing(const MailSend& /*record*/, const Seen& seen) {
  return seen.has(kSendSubject) && seen.has(kSendBody) ? nullptr : "incomplete";
}

constexpr ItemRow<MailSend> kMailSendItems[] = {
    row<Subject>(kSendSubject, "bad subject"),
    row<Text<&MailSend::body, Sent::Always>>(kSendBody, "bad body"),
};
constexpr RecordType<MailSend> kMailSend = {.type = MessageType::MailSend,
                                            .name = "MAIL_SEND",
                                            .first = kSendSubject,
                                            .last = kSendBody,
                                            .items = kMailSendItems,
                                            .missing = mail_send_missing};

struct MailResult {
  std::uint32_t status = 0;
  Line error;
};

// The text is a foreign server's: a NUL in it ends it here rather than spoiling the record.
struct ErrorText : Text<&MailResult::error, Sent::Always> {
  static int put(IpcMessage& msg, Tag tag, const MailResult& record) {
    if (record.status == 0) return 0;
    std::string_view text = record.error.text;
    text = text.substr(0, text.find('\0'));
    if (text.empty()) text = "unknown error";
    return ipc_put_string(msg, tag, text.substr(0, kIpcMaxMailError));
  }
};

// A success has no text and a failure has one, so that neither can pass for the other.
const char* mail_result_missing(const MailResult& record, const Seen& seen) {
  if (!seen.has(kResultStatus)) return "no status";
  if (seen.has(kResultError) == (record.status != 0)) return nullptr;
  return "error text must be present iff status != 0";
}

constexpr ItemRow<MailResult> kMailResultItems[] = {
    row<Number<&MailResult::status>>(kResultStatus, "bad status"),
    row<ErrorText>(kResultError, "bad error text"),
};
constexpr RecordType<MailResult> kMailResult = {.type = MessageType::MailResult,
                                                .name = "MAIL_RESULT",
                                                .first = kResultStatus,
                                                .last = kResultError,
                                                .items = kMailResultItems,
                                                .missing = mail_result_missing,
                                                .empty = "no status"};

// A PEM text on the heap.
template <auto kField>
struct Pem {
  using Record = IpcApiConfig;
  static const char* store(Record& out, std::string_view value, const char* fault) {
    if (!some_text(value) || value.size() > kIpcMaxPem) return fault;
    out.*kField = value;
    return nullptr;
  }
  static int put(IpcMessage& msg, Tag tag, const Record& record) {
    return ipc_put_string(msg, tag, record.*kField);
  }
};

const char* api_config_missing(const IpcApiConfig& /*record*/, const Seen& seen) {
  const bool all = seen.has(kApiCertificate) && seen.has(kApiKey) && seen.has(kApiMaxClients);
  return all ? nullptr : "malformed or incomplete";
}

constexpr ItemRow<IpcApiConfig> kApiConfigItems[] = {
    row<Pem<&IpcApiConfig::cert_pem>>(kApiCertificate, "bad certificate"),
    row<Pem<&IpcApiConfig::key_pem>>(kApiKey, "bad key"),
    row<Number<&IpcApiConfig::max_clients, 1, kIpcMaxClients>>(kApiMaxClients, "bad max-clients"),
};
constexpr RecordType<IpcApiConfig> kApiConfig = {.type = MessageType::ApiConfig,
                                                 .name = "API_CONFIG",
                                                 .first = kApiCertificate,
                                                 .last = kApiMaxClients,
                                                 .items = kApiConfigItems,
                                                 .missing = api_config_missing,
                                                 .empty = "malformed or incomplete",
                                                 .malformed = "malformed or incomplete"};

// What comes from clients of the API goes to logs and terminals: no byte beyond printable ASCII.
bool some_printable(std::string_view value) { return !value.empty() && ipc_printable(value); }
bool absolute_path(std::string_view value) {
  return value.starts_with('/') && ipc_printable(value);
}

// The method is looked up last: a request that is incomplete is that, whatever its method.
const char* api_request_missing(const ApiRequest& record, const Seen& /*seen*/) {
  if (record.method.empty() || record.path.empty() || record.client.empty()) return "incomplete";
  return is_api_method(record.method.view()) ? nullptr : "method not allowed";
}

// clang-format off
constexpr ItemRow<ApiRequest> kApiRequestItems[] = {
    row<Text<&ApiRequest::method, Sent::Always, some_printable>>(kRequestMethod, "bad method"),
    row<Text<&ApiRequest::path, Sent::Always, absolute_path>>(kRequestPath, "bad path"),
    row<Text<&ApiRequest::query, Sent::IfSet, ipc_printable>>(kRequestQuery, "bad query"),
    row<Text<&ApiRequest::authorization, Sent::IfSet, ipc_printable>>(kRequestAuthorization, "bad authorization"),
    row<Text<&ApiRequest::if_match, Sent::IfSet, ipc_printable>>(kRequestIfMatch, "bad if-match"),
    row<Text<&ApiRequest::client, Sent::Always, ipc_printable>>(kRequestClient, "bad client address"),
    row<Bytes<&ApiRequest::body, Sent::IfSet, kIpcMaxRequestBody>>(kRequestBody, "body too large"),
};
// clang-format on
constexpr RecordType<ApiRequest> kApiRequest = {.type = MessageType::ApiRequest,
                                                .name = "API_REQUEST",
                                                .first = kRequestMethod,
                                                .last = kRequestLast,
                                                .items = kApiRequestItems,
                                                .missing = api_request_missing,
                                                .outside = "unexpected or duplicate tag",
                                                .repeated = "unexpected or duplicate tag"};

const char* api_response_missing(const ApiResponse& /*record*/, const Seen& seen) {
  return seen.has(kResponseStatus) && seen.has(kResponseBody) ? nullptr : "incomplete";
}

// clang-format off
// The body goes last, after the flag with the higher number: a reader sees what the response is first.
constexpr ItemRow<ApiResponse> kApiResponseItems[] = {
    row<Number<&ApiResponse::status, kIpcMinHttpStatus, kIpcMaxHttpStatus>>(kResponseStatus, "bad status"),
    row<Text<&ApiResponse::etag, Sent::IfSet, ipc_printable>>(kResponseEtag, "bad etag"),
    row<Text<&ApiResponse::signature, Sent::IfSet, ipc_printable>>(kResponseSignature, "bad signature"),
    row<Flag<&ApiResponse::auth_failed>>(kResponseAuthFailed, "bad flag"),
    row<Bytes<&ApiResponse::body, Sent::Always, kIpcMaxResponseBody>>(kResponseBody, "body too large"),
};
// clang-format on
constexpr RecordType<ApiResponse> kApiResponse = {.type = MessageType::ApiResponse,
                                                  .name = "API_RESPONSE",
                                                  .first = kResponseStatus,
                                                  .last = kResponseLast,
                                                  .items = kApiResponseItems,
                                                  .missing = api_response_missing,
                                                  .outside = "unexpected or duplicate tag",
                                                  .repeated = "unexpected or duplicate tag"};

}  // namespace

int ipc_encode_hello(IpcMessage& msg, std::uint32_t pid) {
  return encode(kHello, msg, 0, IpcHello{pid});
}

int ipc_decode_hello(const IpcParsed& in, IpcHello& out, std::span<char> err) {
  return decode(kHello, in, out, err);
}

int ipc_encode_mail_config(IpcMessage& msg, std::uint32_t id, const IpcMailConfig& config) {
  return encode(kMailConfig, msg, id, config);
}

int ipc_decode_mail_config(const IpcParsed& in, IpcMailConfig& out, std::span<char> err) {
  const int rc = decode(kMailConfig, in, out, err, [](IpcMailConfig& record) { record.wipe(); });
  out.valid = rc == 0;
  return rc;
}

int ipc_encode_mail_send(IpcMessage& msg, std::uint32_t id, std::string_view subject,
                         std::string_view body) {
  return encode(kMailSend, msg, id, MailSend{{subject}, {body}});
}

int ipc_decode_mail_send(const IpcParsed& in, std::span<char> subject, std::span<char> body,
                         std::span<char> err) {
  // The texts point into the record until all of it is known to be good; only then are they copied.
  MailSend out = {{"", subject.size()}, {"", body.size()}};
  const auto forget = [](MailSend& record) { record.subject.text = record.body.text = {}; };
  const int rc = decode(kMailSend, in, out, err, forget);
  copy_line(out.subject, subject);
  copy_line(out.body, body);
  return rc;
}

int ipc_encode_mail_result(IpcMessage& msg, std::uint32_t id, std::uint32_t status,
                           std::string_view error) {
  return encode(kMailResult, msg, id, MailResult{status, {error}});
}

int ipc_decode_mail_result(const IpcParsed& in, std::uint32_t& status, std::span<char> error_text,
                           std::span<char> err) {
  MailResult out = {0, {"", error_text.size()}};
  const auto forget = [](MailResult& record) {
    record.status = 0;
    record.error.text = {};
  };
  const int rc = decode(kMailResult, in, out, err, forget);
  status = out.status;
  copy_line(out.error, error_text);
  // A server's answer may have several lines; a log line must stay one.
  const auto line_break = [](char c) { return c == '\r' || c == '\n'; };
  std::ranges::replace_if(error_text.first(out.error.text.size()), line_break, ' ');
  return rc;
}

int ipc_encode_api_config(IpcMessage& msg, std::uint32_t id, const IpcApiConfig& config) {
  return encode(kApiConfig, msg, id, config);
}

int ipc_decode_api_config(const IpcParsed& in, IpcApiConfig& out, std::span<char> err) {
  return decode(kApiConfig, in, out, err, ipc_release_api_config);
}

int ipc_encode_api_request(IpcMessage& msg, std::uint32_t id, const ApiRequest& request) {
  return encode(kApiRequest, msg, id, request);
}

int ipc_decode_api_request(const IpcParsed& in, ApiRequest& out, std::span<char> err) {
  return decode(kApiRequest, in, out, err);
}

int ipc_encode_api_response(IpcMessage& msg, std::uint32_t id, const ApiResponse& response) {
  return encode(kApiResponse, msg, id, response);
}

int ipc_decode_api_response(const IpcParsed& in, ApiResponse& out, std::span<char> err) {
  return decode(kApiResponse, in, out, err);
}

}  // namespace orv
