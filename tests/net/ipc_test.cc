#include "net/ipc.h"

#include <errno.h>
#include <gtest/gtest.h>
#include <sys/socket.h>

#include <algorithm>
#include <array>
#include <memory>

#include "common/endian.h"
#include "common/scoped_fd.h"
#include "support/support.h"

namespace orv {
namespace {

std::string item(std::uint16_t tag, std::string_view value) {
  unsigned char head[6];
  store_le16(head, tag);
  store_le32(head + 2, static_cast<std::uint32_t>(value.size()));
  return std::string(head, head + 6) + std::string(value);
}

std::string num(std::uint32_t n) {
  unsigned char bytes[4];
  store_le32(bytes, n);
  return std::string(bytes, bytes + 4);
}

std::string record(MessageType type, std::string_view payload) {
  auto msg = std::make_unique<IpcMessage>();
  ipc_begin(*msg, type, 7);
  std::copy(payload.begin(), payload.end(), msg->bytes.begin() + kIpcHeaderSize);
  store_le32(msg->bytes.data() + 12, static_cast<std::uint32_t>(payload.size()));
  return {msg->bytes.begin(), msg->bytes.begin() + kIpcHeaderSize + payload.size()};
}

int parse(std::string_view bytes, IpcParsed& out) {
  return ipc_parse({reinterpret_cast<const unsigned char*>(bytes.data()), bytes.size()}, out);
}

template <typename Record>
std::string said(int (*decode)(const IpcParsed&, Record&, std::span<char>), const IpcParsed& in) {
  Record out;
  std::array<char, 256> err{};
  return decode(in, out, err) == 0 ? "" : err.data();
}

// What the decoder of `expected` says about a record; empty when it takes it.
std::string verdict(MessageType expected, std::string_view bytes) {
  IpcParsed in;
  if (parse(bytes, in) != 0) return "bad header";
  char err[256] = "", text[2][512];
  std::uint32_t status = 0;
  switch (expected) {
    case MessageType::Hello: return said(ipc_decode_hello, in);
    case MessageType::MailConfig: return said(ipc_decode_mail_config, in);
    case MessageType::ApiConfig: return said(ipc_decode_api_config, in);
    case MessageType::ApiRequest: return said(ipc_decode_api_request, in);
    case MessageType::ApiResponse: return said(ipc_decode_api_response, in);
    case MessageType::MailSend: (void)ipc_decode_mail_send(in, text[0], text[1], err); break;
    case MessageType::MailResult: (void)ipc_decode_mail_result(in, status, text[0], err); break;
  }
  return err;
}

std::string recipients(int count) {
  std::string items;
  for (int i = 0; i < count; ++i) items += item(16, "a@b");
  return items;
}

std::string mail_config(std::string_view more, int to = 1) {
  return item(10, "h") + item(11, num(25)) + item(12, num(0)) + item(15, "a@b") + recipients(to) +
         item(18, num(60)) + std::string(more);
}

std::string request(std::string_view method, std::string_view path, std::string_view more = {}) {
  return item(50, method) + item(51, path) + item(55, "::1") + std::string(more);
}

TEST(IpcDecoders, TakeTheCompleteAndNameTheFirstFault) {
  using enum MessageType;
  const std::string nul("a\0b", 3);
  const std::string cut = item(1, "xyz").substr(0, 8);
  // clang-format off
  const struct { MessageType type; std::string payload; const char* verdict; } cases[] = {
      {Hello, item(1, num(5)), ""},
      {Hello, "", "HELLO: no pid"},
      {Hello, "abc", "HELLO: malformed record"},
      {Hello, item(2, num(5)), "HELLO: unexpected tag 2"},
      {Hello, item(1, "abc"), "HELLO: bad pid"},
      {Hello, item(1, num(5)) + item(1, num(5)), "HELLO: unexpected tag 1"},
      {Hello, item(1, num(5)) + cut, "HELLO: malformed record"},

      {MailConfig, mail_config("", 16), ""},
      {MailConfig, mail_config(item(13, "u") + item(14, "p") + item(17, "/ca")), ""},
      {MailConfig, mail_config("", 17), "MAIL_CONFIG: too many recipients"},
      {MailConfig, mail_config("", 0), "MAIL_CONFIG: incomplete"},
      {MailConfig, mail_config(item(13, "u")), "MAIL_CONFIG: user and password go together"},
      {MailConfig, mail_config(item(13, "") + item(13, "u")), "MAIL_CONFIG: duplicate tag 13"},
      {MailConfig, mail_config(item(19, "")), "MAIL_CONFIG: unexpected tag 19"},
      {MailConfig, mail_config(item(300, "")), "MAIL_CONFIG: unexpected tag 300"},
      {MailConfig, mail_config(item(16, "a b@c")), "MAIL_CONFIG: bad recipient"},
      {MailConfig, mail_config(item(14, std::string(65, 'p'))), "MAIL_CONFIG: bad password"},
      {MailConfig, item(10, ""), "MAIL_CONFIG: bad host"},
      {MailConfig, item(10, nul), "MAIL_CONFIG: bad host"},
      {MailConfig, item(11, num(65536)), "MAIL_CONFIG: bad port"},
      {MailConfig, item(12, num(3)), "MAIL_CONFIG: bad tls mode"},
      {MailConfig, item(15, "root"), "MAIL_CONFIG: bad from"},
      {MailConfig, item(18, num(0)), "MAIL_CONFIG: bad timeout"},

      {MailSend, item(21, "") + item(20, ""), ""},
      {MailSend, item(20, std::string(511, 's')) + item(21, "b"), ""},
      {MailSend, item(20, std::string(512, 's')), "MAIL_SEND: bad subject"},
      {MailSend, item(20, "a\rb"), "MAIL_SEND: subject contains a line break"},
      {MailSend, item(20, "s") + item(21, nul), "MAIL_SEND: bad body"},
      {MailSend, item(20, "s"), "MAIL_SEND: incomplete"},
      {MailSend, item(20, "") + item(20, "s"), "MAIL_SEND: unexpected tag 20"},

      {MailResult, item(30, num(0)), ""},
      {MailResult, item(31, "why") + item(30, num(1)), ""},
      {MailResult, item(31, "why"), "MAIL_RESULT: no status"},
      {MailResult, item(30, "x"), "MAIL_RESULT: bad status"},
      {MailResult, item(31, std::string(512, 'e')), "MAIL_RESULT: bad error text"},
      {MailResult, item(30, num(1)), "MAIL_RESULT: error text must be present iff status != 0"},
      {MailResult, item(30, num(0)) + item(31, ""), "MAIL_RESULT: error text must be present iff status != 0"},

      {ApiConfig, item(41, "k") + item(40, "c") + item(42, num(256)), ""},
      {ApiConfig, item(40, std::string(16385, 'c')), "API_CONFIG: bad certificate"},
      {ApiConfig, item(41, ""), "API_CONFIG: bad key"},
      {ApiConfig, item(42, num(257)), "API_CONFIG: bad max-clients"},
      {ApiConfig, item(40, "c") + item(41, "k"), "API_CONFIG: malformed or incomplete"},
      {ApiConfig, "abc", "API_CONFIG: malformed or incomplete"},
      {ApiConfig, item(40, "c") + item(40, "c"), "API_CONFIG: unexpected tag 40"},

      {ApiRequest, request("GET", "/", item(56, std::string(32768, 'b'))), ""},
      {ApiRequest, request("GET", "/", item(56, std::string(32769, 'b'))), "API_REQUEST: body too large"},
      {ApiRequest, request("PATCH", "/"), "API_REQUEST: method not allowed"},
      {ApiRequest, request("", "/"), "API_REQUEST: bad method"},
      {ApiRequest, request("GET", ""), "API_REQUEST: bad path"},
      {ApiRequest, request("GET", "x"), "API_REQUEST: bad path"},
      {ApiRequest, request("GET", "/\x7F"), "API_REQUEST: bad path"},
      {ApiRequest, item(50, "GET") + item(51, "/") + item(55, ""), "API_REQUEST: incomplete"},
      {ApiRequest, request("GET", "/", item(52, "") + item(52, "")), "API_REQUEST: unexpected or duplicate tag 52"},
      {ApiRequest, request("GET", "/", item(64, "")), "API_REQUEST: unexpected or duplicate tag 64"},
      {ApiRequest, request("GET", "/", item(63, "")), "API_REQUEST: unexpected tag 63"},

      {ApiResponse, item(60, num(599)) + item(63, std::string(61440, 'b')), ""},
      {ApiResponse, item(60, num(99)), "API_RESPONSE: bad status"},
      {ApiResponse, item(60, num(600)), "API_RESPONSE: bad status"},
      {ApiResponse, item(63, std::string(61441, 'b')), "API_RESPONSE: body too large"},
      {ApiResponse, item(64, "1"), "API_RESPONSE: bad flag"},
      {ApiResponse, item(60, num(200)), "API_RESPONSE: incomplete"},
      {ApiResponse, item(69, ""), "API_RESPONSE: unexpected tag 69"},
      {ApiResponse, item(70, ""), "API_RESPONSE: unexpected or duplicate tag 70"},
  };
  // clang-format on
  for (const auto& c : cases) {
    SCOPED_TRACE(c.verdict);
    EXPECT_EQ(verdict(c.type, record(c.type, c.payload)), c.verdict);
  }
  EXPECT_EQ(verdict(Hello, record(MailSend, "")), "unexpected message type 3 (expected 1)");
}

TEST(IpcHeader, RefusesWhatIsNotARecordOfThisVersion) {
  const std::string good = record(MessageType::Hello, item(1, num(5)));
  IpcParsed in;
  ASSERT_EQ(parse(good, in), 0);
  EXPECT_EQ(in.id, 7U);
  EXPECT_EQ(in.payload.size(), 10U);
  for (const std::size_t at : {0U, 4U, 12U}) {  // magic, version, payload length
    std::string bad = good;
    bad[at] = static_cast<char>(bad[at] + 1);
    EXPECT_EQ(parse(bad, in), -1) << at;
  }
  EXPECT_EQ(parse(good.substr(0, 15), in), -1);
  EXPECT_EQ(parse(good + "x", in), -1);
}

TEST(IpcEncoders, KeepToTheLayoutAndRefuseWhatDoesNotFit) {
  const auto msg = std::make_unique<IpcMessage>();
  const auto bytes = [&] {
    return std::string(msg->bytes.begin(), msg->bytes.begin() + static_cast<long>(msg->length));
  };
  ASSERT_EQ(ipc_encode_hello(*msg, 0x01020304), 0);
  EXPECT_EQ(bytes(), std::string("ORVS\1\0\1\0\0\0\0\0\x0A\0\0\0\1\0\4\0\0\0\4\3\2\1", 26));

  ASSERT_EQ(ipc_encode_mail_result(*msg, 7, 1, ""), 0);
  EXPECT_EQ(bytes(), record(MessageType::MailResult, item(30, num(1)) + item(31, "unknown error")));
  ASSERT_EQ(ipc_encode_mail_result(*msg, 7, 1, std::string(600, 'e')), 0);
  EXPECT_EQ(verdict(MessageType::MailResult, bytes()), "");

  ApiResponse response;
  response.status = 401;
  response.auth_failed = true;
  response.body = "{}";
  ASSERT_EQ(ipc_encode_api_response(*msg, 7, response), 0);
  EXPECT_EQ(bytes(), record(MessageType::ApiResponse,
                            item(60, num(401)) + item(64, num(1)) + item(63, "{}")));
  const std::string large(61441, 'b');
  response.body = large;
  EXPECT_EQ(ipc_encode_api_response(*msg, 7, response), -1);
  ApiRequest request;
  request.body = std::string_view(large).substr(0, 32769);
  EXPECT_EQ(ipc_encode_api_request(*msg, 7, request), -1);
  EXPECT_EQ(ipc_encode_mail_send(*msg, 7, "s", std::string(65536, 'b')), -1);
  EXPECT_EQ(ipc_encode_mail_send(*msg, 7, std::string_view("a\0b", 3), ""), -1);
}

TEST(IpcMessageWipe, ReachesWhatALongerRecordLeftBehind) {
  const auto msg = std::make_unique<IpcMessage>();
  const IpcApiConfig config = {"certificate", SecretString(5000, 'k'), 1};
  ASSERT_EQ(ipc_encode_api_config(*msg, 1, config), 0);
  ASSERT_EQ(ipc_encode_hello(*msg, 1), 0);
  msg->wipe();
  EXPECT_EQ(std::ranges::count(msg->bytes, 'k'), 0);
}

TEST(IpcSocket, TellsRecordNothingOversizedAndClosedApart) {
  int ends[2];
  ASSERT_EQ(::socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0, ends), 0);
  const ScopedFd ours(ends[0]);
  ScopedFd theirs(ends[1]);
  const auto msg = std::make_unique<IpcMessage>();
  EXPECT_EQ(ipc_recv(ours.get(), *msg, true), IpcReceived::Nothing);

  const std::string large(kIpcMaxRecord + 1, 'x');
  ASSERT_EQ(::send(theirs.get(), large.data(), kIpcMaxRecord, 0), ssize_t{kIpcMaxRecord});
  EXPECT_EQ(ipc_recv(ours.get(), *msg, true), IpcReceived::Record);
  EXPECT_EQ(msg->length, kIpcMaxRecord);
  ASSERT_EQ(::send(theirs.get(), large.data(), large.size(), 0), ssize_t{kIpcMaxRecord + 1});
  EXPECT_EQ(ipc_recv(ours.get(), *msg, true), IpcReceived::Oversized);

  ipc_begin(*msg, MessageType::Hello, 0);
  while (ipc_send(ours.get(), *msg, true) == 0) {
  }
  EXPECT_EQ(errno, EAGAIN);
  theirs.reset();
  EXPECT_EQ(ipc_send(ours.get(), *msg, true), -1);
  EXPECT_EQ(ipc_recv(ours.get(), *msg, true), IpcReceived::Closed);
}

}  // namespace
}  // namespace orv
