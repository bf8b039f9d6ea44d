// The records that orv_sched and orv_sched_net exchange over their socket pair: encoders, decoders
// and the primitives that send and receive them. Both programs are built from this file.
//
// A record is one message of a SOCK_SEQPACKET socket: a 16-byte header, then tagged items.
//
//   offset width  header field                 offset width  item field
//   0      4      "ORVS"                       0      2      tag
//   4      2      version, 1                   2      4      length of the value
//   6      2      type (MessageType)           6      n      value
//   8      4      id
//   12     4      length of the payload
//
// All numbers are little-endian; strings carry no NUL; a number item is 4 bytes long. Decoders
// trust nothing: on any fault they return -1 with one message and leave the output cleared.
#ifndef ORV_NET_IPC_H_
#define ORV_NET_IPC_H_

#include <array>
#include <cstddef>
#include <cstdint>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "common/fixed_text.h"
#include "common/mail_address.h"
#include "common/secret.h"
#include "net/ipc_tags.h"

namespace orv {

inline constexpr std::size_t kIpcMaxRecord = 65536;  // bytes, header included
inline constexpr std::size_t kIpcHeaderSize = 16;
inline constexpr std::size_t kIpcMaxPayload = kIpcMaxRecord - kIpcHeaderSize;

inline constexpr std::string_view kIpcMagic = "ORVS";
inline constexpr std::uint16_t kIpcVersion = 1;

// The methods of requests; any other is refused by both ends.
inline constexpr std::string_view kApiMethods[] = {"GET", "PUT", "POST", "DELETE"};
[[nodiscard]] bool is_api_method(std::string_view text);

// Every byte is 0x20..0x7E. The empty text is printable.
[[nodiscard]] bool ipc_printable(std::string_view text);

enum class MessageType : std::uint16_t {
  Hello = 1,        // network process -> scheduler, when it starts
  MailConfig = 2,   // scheduler -> network process
  MailSend = 3,     // scheduler -> network process; the id is the mail's
  MailResult = 4,   // network process -> scheduler; the id is the mail's
  ApiConfig = 5,    // scheduler -> network process
  ApiRequest = 6,   // network process -> scheduler; the id is the request's
  ApiResponse = 7,  // scheduler -> network process; the id is the request's
};

// One record in the making or as received. Keep it on the heap; std::make_unique_for_overwrite
// saves zeroing what is about to be written. wipe() zeroes all that was ever in it, also what an
// earlier and longer record left behind; a record that may carry a secret is wiped by its owner
// before it goes.
struct IpcMessage {
  std::array<unsigned char, kIpcMaxRecord> bytes;
  std::size_t length = 0;  // bytes in use
  std::size_t dirty = 0;   // bytes that earlier records used; kept by the functions below
  void wipe() noexcept;
};

// A received record after its header was checked. The payload points into the received buffer.
struct IpcParsed {
  std::uint16_t type = 0;
  std::uint32_t id = 0;
  std::span<const unsigned char> payload;
};

// Building. ipc_begin() writes the header; each ipc_put_*() appends one item, or returns -1 without
// writing anything when the record would grow beyond kIpcMaxRecord or a string has a NUL in it.
void ipc_begin(IpcMessage& msg, MessageType type, std::uint32_t id);
[[nodiscard]] int ipc_put_bytes(IpcMessage& msg, std::uint16_t tag, std::string_view bytes);
[[nodiscard]] int ipc_put_string(IpcMessage& msg, std::uint16_t tag, std::string_view text);
[[nodiscard]] int ipc_put_u32(IpcMessage& msg, std::uint16_t tag, std::uint32_t value);

// Checks a received record's header. -1: too short or long, wrong magic, version or payload length.
[[nodiscard]] int ipc_parse(std::span<const unsigned char> record, IpcParsed& out);

// The decoded records. Texts stand in fields of their greatest length.
struct IpcHello {
  std::uint32_t pid = 0;
};

struct IpcMailConfig {
  bool valid = false;  // set by a successful decode, or by the code that fills the record
  FixedText<kIpcMaxHost> host;
  std::uint32_t port = 0;
  std::uint32_t tls_mode = 0;   // 0 none, 1 starttls, 2 smtps
  FixedText<kIpcMaxUser> user;  // empty: no login
  FixedSecret<kIpcMaxPassword> password;
  FixedText<kMaxMailAddress> from;
  std::vector<FixedText<kMaxMailAddress>> recipients;  // 1..kMaxRecipients
  FixedText<kIpcMaxCaFile> ca_file;                    // empty: the system's store
  std::uint32_t timeout_s = 0;
  void wipe() noexcept;  // back to the initial state, the password zeroed
};

struct IpcApiConfig {
  SecretString cert_pem;
  SecretString key_pem;           // of the certificate, without a password
  std::uint32_t max_clients = 0;  // connections at once, 1..kIpcMaxClients
};
// Back to the initial state, the key zeroed.
void ipc_release_api_config(IpcApiConfig& record);

struct ApiRequest {
  FixedText<kIpcMaxMethod> method;
  FixedText<kIpcMaxPath> path;
  FixedText<kIpcMaxQuery> query;
  FixedText<kIpcMaxAuthorization> authorization;
  FixedText<kIpcMaxIfMatch> if_match;
  FixedText<kIpcMaxClient> client;  // address of the peer
  std::string_view body;  // points into the received record, or to where the sender keeps it
  ~ApiRequest() { authorization.wipe(); }  // a token is in it
};

struct ApiResponse {
  std::uint32_t status = 0;               // 100..599
  FixedText<kIpcMaxEtag> etag;            // empty: none
  FixedText<kIpcMaxSignature> signature;  // empty: none
  bool auth_failed = false;
  std::string_view body;  // owned by the maker of the response
};

// Encoders: 0, or -1 when something did not fit; the record is then not to be sent.
[[nodiscard]] int ipc_encode_hello(IpcMessage& msg, std::uint32_t pid);
[[nodiscard]] int ipc_encode_mail_config(IpcMessage& msg, std::uint32_t id,
                                         const IpcMailConfig& config);
[[nodiscard]] int ipc_encode_mail_send(IpcMessage& msg, std::uint32_t id, std::string_view subject,
                                       std::string_view body);
// The error text goes along when `status` is not 0 ("unknown error" when empty, cut at 511 bytes).
[[nodiscard]] int ipc_encode_mail_result(IpcMessage& msg, std::uint32_t id, std::uint32_t status,
                                         std::string_view error);
[[nodiscard]] int ipc_encode_api_config(IpcMessage& msg, std::uint32_t id,
                                        const IpcApiConfig& config);
[[nodiscard]] int ipc_encode_api_request(IpcMessage& msg, std::uint32_t id,
                                         const ApiRequest& request);
[[nodiscard]] int ipc_encode_api_response(IpcMessage& msg, std::uint32_t id,
                                          const ApiResponse& response);

// Decoders: 0, or -1 with one message in `err` and the output cleared.
[[nodiscard]] int ipc_decode_hello(const IpcParsed& in, IpcHello& out, std::span<char> err);
[[nodiscard]] int ipc_decode_mail_config(const IpcParsed& in, IpcMailConfig& out,
                                         std::span<char> err);
// Subject and body go NUL-terminated into the caller's buffers; each must be shorter than its
// buffer.
[[nodiscard]] int ipc_decode_mail_send(const IpcParsed& in, std::span<char> subject,
                                       std::span<char> body, std::span<char> err);
// Line breaks of the error text become spaces.
[[nodiscard]] int ipc_decode_mail_result(const IpcParsed& in, std::uint32_t& status,
                                         std::span<char> error_text, std::span<char> err);
[[nodiscard]] int ipc_decode_api_config(const IpcParsed& in, IpcApiConfig& out,
                                        std::span<char> err);
[[nodiscard]] int ipc_decode_api_request(const IpcParsed& in, ApiRequest& out, std::span<char> err);
[[nodiscard]] int ipc_decode_api_response(const IpcParsed& in, ApiResponse& out,
                                          std::span<char> err);

// One send(2) of the whole record, never raising SIGPIPE. 0 when all of it went out; -1 otherwise
// with errno intact (EAGAIN: the peer is not keeping up).
[[nodiscard]] int ipc_send(int fd, const IpcMessage& msg, bool nonblocking);

enum class IpcReceived : int { Record = 1, Nothing = 0, Closed = -1, Oversized = -2 };
// One recv(2). Nothing: none is waiting. Closed: the peer closed, or another error. Oversized: the
// record was longer than kIpcMaxRecord and was discarded.
[[nodiscard]] IpcReceived ipc_recv(int fd, IpcMessage& msg, bool nonblocking);

}  // namespace orv

#endif  // ORV_NET_IPC_H_
