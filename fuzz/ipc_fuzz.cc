// Every decoder of records over any bytes: the first byte chooses the decoder, the rest is the
// record's payload, or with the top bit set the whole record. What a decoder accepts is encoded and
// decoded again and must come back the same; what it refuses must leave a message and nothing else.
#include <cstdint>
#include <memory>
#include <span>
#include <string>
#include <string_view>

#include "fuzz/targets.h"
#include "net/ipc.h"

namespace orv::fuzz {
namespace {

// The same record as the encoders make it, checked as if received.
IpcParsed reparse(int encoded, const IpcMessage& msg) {
  IpcParsed in;
  require(encoded == 0);
  require(ipc_parse(std::span(msg.bytes).first(msg.length), in) == 0);
  return in;
}

bool refused(int rc, const char* err) {
  require((rc != 0) == (*err != '\0'));
  return rc != 0;
}

void hello(const IpcParsed& in, IpcMessage& msg, std::span<char> err) {
  IpcHello first;
  if (refused(ipc_decode_hello(in, first, err), err.data())) return require(first.pid == 0);
  IpcHello second;
  require(ipc_decode_hello(reparse(ipc_encode_hello(msg, first.pid), msg), second, err) == 0);
  require(first.pid == second.pid);
}

void mail_config(const IpcParsed& in, IpcMessage& msg, std::span<char> err) {
  IpcMailConfig first;
  if (refused(ipc_decode_mail_config(in, first, err), err.data())) {
    return require(!first.valid && first.host.empty() && first.password.empty());
  }
  IpcMailConfig second;
  const IpcParsed again = reparse(ipc_encode_mail_config(msg, in.id, first), msg);
  require(ipc_decode_mail_config(again, second, err) == 0);
  require(first.host == second.host && first.from == second.from && first.port == second.port);
  require(first.recipients == second.recipients && first.ca_file == second.ca_file);
  require(first.password.view() == second.password.view() && first.user == second.user);
}

void mail_send(const IpcParsed& in, IpcMessage& msg, std::span<char> err) {
  char first[2][600];
  char second[2][600];
  if (refused(ipc_decode_mail_send(in, first[0], first[1], err), err.data())) {
    return require(first[0][0] == '\0' && first[1][0] == '\0');
  }
  const IpcParsed again = reparse(ipc_encode_mail_send(msg, in.id, first[0], first[1]), msg);
  require(ipc_decode_mail_send(again, second[0], second[1], err) == 0);
  for (int i = 0; i < 2; ++i) require(std::string_view(first[i]) == second[i]);
}

void mail_result(const IpcParsed& in, IpcMessage& msg, std::span<char> err) {
  char text[kIpcMaxMailError + 1];
  std::uint32_t status = 0;
  if (refused(ipc_decode_mail_result(in, status, text, err), err.data())) {
    return require(status == 0 && text[0] == '\0');
  }
  require(std::string_view(text).find_first_of("\r\n") == std::string_view::npos);
  require(status != 0 || text[0] == '\0');
  (void)reparse(ipc_encode_mail_result(msg, in.id, status, text), msg);
}

void api_config(const IpcParsed& in, IpcMessage& msg, std::span<char> err) {
  IpcApiConfig first;
  if (refused(ipc_decode_api_config(in, first, err), err.data())) {
    return require(first.key_pem.empty() && first.cert_pem.empty() && first.max_clients == 0);
  }
  IpcApiConfig second;
  const IpcParsed again = reparse(ipc_encode_api_config(msg, in.id, first), msg);
  require(ipc_decode_api_config(again, second, err) == 0);
  require(first.cert_pem == second.cert_pem && first.key_pem == second.key_pem);
}

void api_request(const IpcParsed& in, IpcMessage& msg, std::span<char> err) {
  ApiRequest first;
  if (refused(ipc_decode_api_request(in, first, err), err.data())) {
    return require(first.path.empty() && first.authorization.empty() && first.body.empty());
  }
  ApiRequest second;
  require(ipc_decode_api_request(reparse(ipc_encode_api_request(msg, in.id, first), msg), second,
                                 err) == 0);
  require(first.method == second.method && first.path == second.path);
  require(first.query == second.query && first.authorization == second.authorization);
  require(first.if_match == second.if_match && first.client == second.client);
  require(first.body == second.body);
}

void api_response(const IpcParsed& in, IpcMessage& msg, std::span<char> err) {
  ApiResponse first;
  if (refused(ipc_decode_api_response(in, first, err), err.data())) {
    return require(first.status == 0 && first.etag.empty() && first.body.empty());
  }
  ApiResponse second;
  require(ipc_decode_api_response(reparse(ipc_encode_api_response(msg, in.id, first), msg), second,
                                  err) == 0);
  require(first.status == second.status && first.etag == second.etag);
  require(first.signature == second.signature && first.auth_failed == second.auth_failed);
  require(first.body == second.body);
}

constexpr void (*kDecoders[])(const IpcParsed&, IpcMessage&, std::span<char>) = {
    hello, mail_config, mail_send, mail_result, api_config, api_request, api_response};

}  // namespace

void ipc(std::string_view input) {
  static const auto msg = std::make_unique<IpcMessage>();
  if (input.empty()) return;
  const unsigned lead = static_cast<unsigned char>(input[0]);
  const unsigned choice = lead & 0x7FU;
  const bool whole = (lead & 0x80U) != 0;
  IpcParsed in;
  in.type = static_cast<std::uint16_t>(choice % std::size(kDecoders) + 1);
  in.payload = {reinterpret_cast<const std::uint8_t*>(input.data()) + 1, input.size() - 1};
  if (whole && ipc_parse(in.payload, in) != 0) return;
  char err[256] = "";
  kDecoders[choice % std::size(kDecoders)](in, *msg, std::span<char>(err));
}

}  // namespace orv::fuzz
