// Reading records. The sender is not trusted: every decoder walks the items of one table, each item
// is checked as it comes, completeness is checked behind the last one, and whatever fails clears
// the output.
#include <algorithm>

#include "common/endian.h"
#include "common/message.h"
#include "net/ipc.h"
#include "net/ipc_tags.h"

namespace orv {
namespace {

using namespace ipc;

// What a type's records have in common. `first` to `last` are the tags that belong to the type,
// with or without a meaning today.
struct RecordRules {
  MessageType type;
  const char* empty;
  const char* malformed;
  std::uint16_t first;
  std::uint16_t last;
  const char* outside;   // a tag that is not among them; "... tag", the number follows
  const char* repeated;  // a second item of a tag
  const char* unknown;   // one among them that means nothing
};

// Stores one checked value: null, or the complaint about it.
template <typename Record>
using Store = const char* (*)(Record& out, std::string_view value, const char* complaint);

template <typename Record>
struct ItemRow {
  std::uint16_t tag;
  Store<Record> store;
  const char* complaint;
  bool repeatable = false;
};

class Seen {  // the tags that a record has shown so far
 public:
  explicit Seen(std::uint16_t first) : first_(first) {}
  [[nodiscard]] bool has(std::uint16_t tag) const { return (bits_ & bit(tag)) != 0; }
  void add(std::uint16_t tag) { bits_ |= bit(tag); }

 private:
  [[nodiscard]] std::uint32_t bit(std::uint16_t tag) const { return 1U << (tag - first_); }
  std::uint16_t first_;
  std::uint32_t bits_ = 0;
};

bool has_nul(std::string_view value) { return value.find('\0') != std::string_view::npos; }

bool printable(std::string_view value) {
  return std::all_of(value.begin(), value.end(), [](char c) { return c >= 0x20 && c <= 0x7E; });
}

bool read_u32(std::string_view value, std::uint32_t& out) {
  if (value.size() != 4) return false;
  unsigned char bytes[4];
  std::copy(value.begin(), value.end(), bytes);
  out = load_le32(bytes);
  return true;
}

// The value checks of the tables below.
template <auto kField, std::uint32_t kMin, std::uint32_t kMax, typename Record>
const char* number(Record& out, std::string_view value, const char* complaint) {
  std::uint32_t n = 0;
  if (!read_u32(value, n) || n < kMin || n > kMax) return complaint;
  out.*kField = n;
  return nullptr;
}

template <auto kField, std::size_t kMin, typename Record>
const char* text(Record& out, std::string_view value, const char* complaint) {
  return value.size() >= kMin && !has_nul(value) && (out.*kField).set(value) ? nullptr : complaint;
}

template <auto kField, typename Record>
const char* printable_text(Record& out, std::string_view value, const char* complaint) {
  return printable(value) && (out.*kField).set(value) ? nullptr : complaint;
}

template <auto kField, std::size_t kMax, typename Record>
const char* bytes(Record& out, std::string_view value, const char* complaint) {
  if (value.size() > kMax) return complaint;
  out.*kField = value;
  return nullptr;
}

std::string_view as_text(std::span<const unsigned char> part) {
  return {reinterpret_cast<const char*>(part.data()), part.size()};
}

// Walks the items into `out`. 0; -1 with the first fault.
template <typename Record>
int walk(const IpcParsed& in, const RecordRules& rules, std::span<const ItemRow<Record>> rows,
         Record& out, Seen& seen, std::span<char> err) {
  if (in.type != static_cast<std::uint16_t>(rules.type)) {
    return fail(err, "unexpected message type %u (expected %u)", unsigned{in.type},
                static_cast<unsigned>(rules.type));
  }
  if (in.payload.empty()) return fail(err, "%s", rules.empty);
  for (std::span<const unsigned char> rest = in.payload; !rest.empty();) {
    if (rest.size() < kItemHeaderSize) return fail(err, "%s", rules.malformed);
    const std::uint16_t tag = load_le16(rest.data());
    const std::uint32_t length = load_le32(rest.data() + 2);
    rest = rest.subspan(kItemHeaderSize);
    if (length > rest.size()) return fail(err, "%s", rules.malformed);

    if (tag < rules.first || tag > rules.last) return fail(err, "%s %u", rules.outside, tag);
    const auto row = std::find_if(rows.begin(), rows.end(),
                                  [tag](const ItemRow<Record>& r) { return r.tag == tag; });
    if (row == rows.end()) return fail(err, "%s %u", rules.unknown, tag);
    if (seen.has(tag) && !row->repeatable) return fail(err, "%s %u", rules.repeated, tag);
    seen.add(tag);
    const char* complaint = row->store(out, as_text(rest.first(length)), row->complaint);
    if (complaint != nullptr) return fail(err, "%s", complaint);
    rest = rest.subspan(length);
  }
  return 0;
}

constexpr RecordRules kHelloRules = {MessageType::Hello,
                                     "HELLO: no pid",
                                     "HELLO: malformed record",
                                     kHelloPid,
                                     kHelloPid,
                                     "HELLO: unexpected tag",
                                     "HELLO: unexpected tag",
                                     "HELLO: unexpected tag"};
constexpr ItemRow<IpcHello> kHelloItems[] = {
    {kHelloPid, number<&IpcHello::pid, 0, UINT32_MAX>, "HELLO: bad pid"},
};

// Counts before it looks: a recipient too many is that, whatever it says.
const char* recipient(IpcMailConfig& out, std::string_view value, const char* complaint) {
  if (out.recipients.size() == kMaxRecipients) return "MAIL_CONFIG: too many recipients";
  if (!check_mail_address(value)) return complaint;
  return out.recipients.emplace_back().set(value) ? nullptr : complaint;
}

const char* sender(IpcMailConfig& out, std::string_view value, const char* complaint) {
  return check_mail_address(value) && out.from.set(value) ? nullptr : complaint;
}

constexpr RecordRules kMailConfigRules = {MessageType::MailConfig,
                                          "MAIL_CONFIG: incomplete",
                                          "MAIL_CONFIG: malformed record",
                                          kMailHost,
                                          kMailTimeout,
                                          "MAIL_CONFIG: unexpected tag",
                                          "MAIL_CONFIG: duplicate tag",
                                          "MAIL_CONFIG: unexpected tag"};
// clang-format off
constexpr ItemRow<IpcMailConfig> kMailConfigItems[] = {
    {kMailHost,      text<&IpcMailConfig::host, 1>,                  "MAIL_CONFIG: bad host"},
    {kMailPort,      number<&IpcMailConfig::port, 1, 65535>,         "MAIL_CONFIG: bad port"},
    {kMailTlsMode,   number<&IpcMailConfig::tls_mode, 0, 2>,         "MAIL_CONFIG: bad tls mode"},
    {kMailUser,      text<&IpcMailConfig::user, 0>,                  "MAIL_CONFIG: bad user"},
    {kMailPassword,  text<&IpcMailConfig::password, 0>,              "MAIL_CONFIG: bad password"},
    {kMailFrom,      sender,                                         "MAIL_CONFIG: bad from"},
    {kMailRecipient, recipient,                                      "MAIL_CONFIG: bad recipient", true},
    {kMailCaFile,    text<&IpcMailConfig::ca_file, 0>,               "MAIL_CONFIG: bad ca-file"},
    {kMailTimeout,   number<&IpcMailConfig::timeout_s, 1, UINT32_MAX>, "MAIL_CONFIG: bad timeout"},
};
// clang-format on

struct MailSendRecord {
  std::span<char> subject;
  std::span<char> body;
};

// Copies a string into a buffer that must have room for its terminator too.
bool copy_string(std::string_view value, std::span<char> into) {
  if (value.size() >= into.size() || has_nul(value)) return false;
  *std::copy(value.begin(), value.end(), into.begin()) = '\0';
  return true;
}

void clear_string(std::span<char> text) {
  if (!text.empty()) text[0] = '\0';
}

const char* subject_line(MailSendRecord& out, std::string_view value, const char* complaint) {
  if (!copy_string(value, out.subject)) return complaint;
  const bool broken = value.find_first_of("\r\n") != std::string_view::npos;
  return broken ? "MAIL_SEND: subject contains a line break" : nullptr;
}

const char* mail_body(MailSendRecord& out, std::string_view value, const char* complaint) {
  return copy_string(value, out.body) ? nullptr : complaint;
}

constexpr RecordRules kMailSendRules = {MessageType::MailSend,
                                        "MAIL_SEND: incomplete",
                                        "MAIL_SEND: malformed record",
                                        kSendSubject,
                                        kSendBody,
                                        "MAIL_SEND: unexpected tag",
                                        "MAIL_SEND: unexpected tag",
                                        "MAIL_SEND: unexpected tag"};
constexpr ItemRow<MailSendRecord> kMailSendItems[] = {
    {kSendSubject, subject_line, "MAIL_SEND: bad subject"},
    {kSendBody, mail_body, "MAIL_SEND: bad body"},
};

struct MailResultRecord {
  std::uint32_t status = 0;
  std::span<char> error;
};

const char* error_line(MailResultRecord& out, std::string_view value, const char* complaint) {
  if (!copy_string(value, out.error)) return complaint;
  const auto line_break = [](char c) { return c == '\r' || c == '\n'; };
  std::replace_if(out.error.begin(), out.error.begin() + static_cast<std::ptrdiff_t>(value.size()),
                  line_break, ' ');
  return nullptr;
}

constexpr RecordRules kMailResultRules = {MessageType::MailResult,
                                          "MAIL_RESULT: no status",
                                          "MAIL_RESULT: malformed record",
                                          kResultStatus,
                                          kResultError,
                                          "MAIL_RESULT: unexpected tag",
                                          "MAIL_RESULT: unexpected tag",
                                          "MAIL_RESULT: unexpected tag"};
constexpr ItemRow<MailResultRecord> kMailResultItems[] = {
    {kResultStatus, number<&MailResultRecord::status, 0, UINT32_MAX>, "MAIL_RESULT: bad status"},
    {kResultError, error_line, "MAIL_RESULT: bad error text"},
};

bool pem_sized(std::string_view value) {
  return !value.empty() && value.size() <= kIpcMaxPem && !has_nul(value);
}

const char* certificate(IpcApiConfig& out, std::string_view value, const char* complaint) {
  if (!pem_sized(value)) return complaint;
  out.certificate = value;
  return nullptr;
}

const char* private_key(IpcApiConfig& out, std::string_view value, const char* complaint) {
  if (!pem_sized(value)) return complaint;
  out.key = SecretBytes(value);
  return nullptr;
}

constexpr RecordRules kApiConfigRules = {MessageType::ApiConfig,
                                         "API_CONFIG: malformed or incomplete",
                                         "API_CONFIG: malformed or incomplete",
                                         kApiCertificate,
                                         kApiMaxClients,
                                         "API_CONFIG: unexpected tag",
                                         "API_CONFIG: unexpected tag",
                                         "API_CONFIG: unexpected tag"};
constexpr ItemRow<IpcApiConfig> kApiConfigItems[] = {
    {kApiCertificate, certificate, "API_CONFIG: bad certificate"},
    {kApiKey, private_key, "API_CONFIG: bad key"},
    {kApiMaxClients, number<&IpcApiConfig::max_clients, 1, 256>, "API_CONFIG: bad max-clients"},
};

const char* method(ApiRequest& out, std::string_view value, const char* complaint) {
  return !value.empty() && printable(value) && out.method.set(value) ? nullptr : complaint;
}

const char* path(ApiRequest& out, std::string_view value, const char* complaint) {
  return value.starts_with('/') && printable(value) && out.path.set(value) ? nullptr : complaint;
}

constexpr RecordRules kApiRequestRules = {MessageType::ApiRequest,
                                          "API_REQUEST: incomplete",
                                          "API_REQUEST: malformed record",
                                          kRequestMethod,
                                          63,
                                          "API_REQUEST: unexpected or duplicate tag",
                                          "API_REQUEST: unexpected or duplicate tag",
                                          "API_REQUEST: unexpected tag"};
// clang-format off
constexpr ItemRow<ApiRequest> kApiRequestItems[] = {
    {kRequestMethod,  method,                                  "API_REQUEST: bad method"},
    {kRequestPath,    path,                                    "API_REQUEST: bad path"},
    {kRequestQuery,   printable_text<&ApiRequest::query>,      "API_REQUEST: bad query"},
    {kRequestAuthorization, printable_text<&ApiRequest::authorization>,
                                                               "API_REQUEST: bad authorization"},
    {kRequestIfMatch, printable_text<&ApiRequest::if_match>,   "API_REQUEST: bad if-match"},
    {kRequestClient,  printable_text<&ApiRequest::client>,     "API_REQUEST: bad client address"},
    {kRequestBody,    bytes<&ApiRequest::body, kIpcMaxRequestBody>,
                                                               "API_REQUEST: body too large"},
};
// clang-format on
constexpr std::string_view kMethods[] = {"GET", "PUT", "POST", "DELETE"};

const char* auth_failed(ApiResponse& out, std::string_view value, const char* complaint) {
  std::uint32_t flag = 0;
  if (!read_u32(value, flag)) return complaint;
  out.auth_failed = flag != 0;
  return nullptr;
}

constexpr RecordRules kApiResponseRules = {MessageType::ApiResponse,
                                           "API_RESPONSE: incomplete",
                                           "API_RESPONSE: malformed record",
                                           kResponseStatus,
                                           69,
                                           "API_RESPONSE: unexpected or duplicate tag",
                                           "API_RESPONSE: unexpected or duplicate tag",
                                           "API_RESPONSE: unexpected tag"};
// clang-format off
constexpr ItemRow<ApiResponse> kApiResponseItems[] = {
    {kResponseStatus,     number<&ApiResponse::status, 100, 599>,   "API_RESPONSE: bad status"},
    {kResponseEtag,       printable_text<&ApiResponse::etag>,       "API_RESPONSE: bad etag"},
    {kResponseSignature,  printable_text<&ApiResponse::signature>,  "API_RESPONSE: bad signature"},
    {kResponseBody,       bytes<&ApiResponse::body, kIpcMaxResponseBody>,
                                                                    "API_RESPONSE: body too large"},
    {kResponseAuthFailed, auth_failed,                              "API_RESPONSE: bad flag"},
};
// clang-format on

// The completeness checks behind the last item. What an item check has refused when it was empty or
// zero is complete as soon as its tag was seen.
int complete(const IpcMailConfig& out, const Seen& seen, std::span<char> err) {
  for (const std::uint16_t tag :
       {kMailHost, kMailPort, kMailFrom, kMailRecipient, kMailTimeout, kMailTlsMode}) {
    if (!seen.has(tag)) return fail(err, "MAIL_CONFIG: incomplete");
  }
  if (out.user.empty() == out.password.empty()) return 0;
  return fail(err, "MAIL_CONFIG: user and password go together");
}

int complete(const MailResultRecord& out, const Seen& seen, std::span<char> err) {
  if (!seen.has(kResultStatus)) return fail(err, "MAIL_RESULT: no status");
  if (seen.has(kResultError) == (out.status != 0)) return 0;
  return fail(err, "MAIL_RESULT: error text must be present iff status != 0");
}

int complete(const ApiRequest& out, std::span<char> err) {
  if (out.method.empty() || out.path.empty() || out.client.empty()) {
    return fail(err, "API_REQUEST: incomplete");
  }
  if (std::ranges::find(kMethods, out.method.view()) != std::end(kMethods)) return 0;
  return fail(err, "API_REQUEST: method not allowed");
}

template <typename Record, std::size_t kRows>
int walk(const IpcParsed& in, const RecordRules& rules, const ItemRow<Record> (&rows)[kRows],
         Record& out, Seen& seen, std::span<char> err) {
  return walk(in, rules, std::span<const ItemRow<Record>>(rows), out, seen, err);
}

}  // namespace

void IpcMailConfig::wipe() noexcept {
  valid = false;
  host.wipe();
  port = 0;
  tls_mode = 0;
  user.wipe();
  password.wipe();
  from.wipe();
  recipients = {};
  ca_file.wipe();
  timeout_s = 0;
}

void ipc_release_api_config(IpcApiConfig& record) { record = IpcApiConfig(); }

int ipc_parse(std::span<const unsigned char> record, IpcParsed& out) {
  if (record.size() < kIpcHeaderSize || record.size() > kIpcMaxRecord) return -1;
  const unsigned char* p = record.data();
  if (!std::equal(kIpcMagic.begin(), kIpcMagic.end(), p)) return -1;
  if (load_le16(p + 4) != kIpcVersion) return -1;
  if (load_le32(p + 12) != record.size() - kIpcHeaderSize) return -1;
  out.type = load_le16(p + 6);
  out.id = load_le32(p + 8);
  out.payload = record.subspan(kIpcHeaderSize);
  return 0;
}

int ipc_decode_hello(const IpcParsed& in, IpcHello& out, std::span<char> err) {
  Seen seen(kHelloRules.first);
  out = IpcHello();
  if (walk(in, kHelloRules, kHelloItems, out, seen, err) == 0) return 0;
  out = IpcHello();
  return -1;
}

int ipc_decode_mail_config(const IpcParsed& in, IpcMailConfig& out, std::span<char> err) {
  Seen seen(kMailConfigRules.first);
  out.wipe();
  if (walk(in, kMailConfigRules, kMailConfigItems, out, seen, err) == 0 &&
      complete(out, seen, err) == 0) {
    out.valid = true;
    return 0;
  }
  out.wipe();
  return -1;
}

int ipc_decode_mail_send(const IpcParsed& in, std::span<char> subject, std::span<char> body,
                         std::span<char> err) {
  Seen seen(kMailSendRules.first);
  MailSendRecord out = {subject, body};
  int rc = walk(in, kMailSendRules, kMailSendItems, out, seen, err);
  if (rc == 0 && !(seen.has(kSendSubject) && seen.has(kSendBody))) {
    rc = fail(err, "MAIL_SEND: incomplete");
  }
  if (rc == 0) return 0;
  clear_string(subject);
  clear_string(body);
  return -1;
}

int ipc_decode_mail_result(const IpcParsed& in, std::uint32_t& status, std::span<char> error_text,
                           std::span<char> err) {
  Seen seen(kMailResultRules.first);
  MailResultRecord out = {0, error_text};
  clear_string(error_text);
  status = 0;
  if (walk(in, kMailResultRules, kMailResultItems, out, seen, err) == 0 &&
      complete(out, seen, err) == 0) {
    status = out.status;
    return 0;
  }
  clear_string(error_text);
  return -1;
}

int ipc_decode_api_config(const IpcParsed& in, IpcApiConfig& out, std::span<char> err) {
  Seen seen(kApiConfigRules.first);
  ipc_release_api_config(out);
  int rc = walk(in, kApiConfigRules, kApiConfigItems, out, seen, err);
  if (rc == 0 && !(seen.has(kApiCertificate) && seen.has(kApiKey) && seen.has(kApiMaxClients))) {
    rc = fail(err, "API_CONFIG: malformed or incomplete");
  }
  if (rc != 0) ipc_release_api_config(out);
  return rc;
}

int ipc_decode_api_request(const IpcParsed& in, ApiRequest& out, std::span<char> err) {
  Seen seen(kApiRequestRules.first);
  out = ApiRequest();
  if (walk(in, kApiRequestRules, kApiRequestItems, out, seen, err) == 0 &&
      complete(out, err) == 0) {
    return 0;
  }
  out = ApiRequest();
  return -1;
}

int ipc_decode_api_response(const IpcParsed& in, ApiResponse& out, std::span<char> err) {
  Seen seen(kApiResponseRules.first);
  out = ApiResponse();
  int rc = walk(in, kApiResponseRules, kApiResponseItems, out, seen, err);
  if (rc == 0 && !(seen.has(kResponseStatus) && seen.has(kResponseBody))) {
    rc = fail(err, "API_RESPONSE: incomplete");
  }
  if (rc != 0) out = ApiResponse();
  return rc;
}

}  // namespace orv
