#include "client/lying_server.h"

#include <gtest/gtest.h>
#include <sys/socket.h>

#include <array>
#include <boost/asio/buffer.hpp>
#include <boost/asio/read_until.hpp>
#include <boost/asio/ssl/stream.hpp>
#include <boost/asio/write.hpp>
#include <regex>
#include <utility>

#include "common/digest.h"
#include "net/certificate.h"

namespace orv::test {
namespace {

namespace asio = boost::asio;
using asio::ip::tcp;
using boost::system::error_code;
using Stream = asio::ssl::stream<tcp::socket>;

// The next request, empty at the end of the connection.
std::string read_request(Stream& stream, std::string& pending) {
  error_code failed;
  const std::size_t head =
      asio::read_until(stream, asio::dynamic_buffer(pending), "\r\n\r\n", failed);
  if (failed) return {};
  std::smatch found;
  const std::string text = pending.substr(0, head);
  std::size_t body = 0;
  if (std::regex_search(text, found, std::regex("Content-Length: ([0-9]+)"))) {
    body = std::stoul(found[1]);
  }
  while (pending.size() < head + body) {
    std::array<char, 4096> more{};
    const std::size_t got = stream.read_some(asio::buffer(more), failed);
    if (failed) return {};
    pending.append(more.data(), got);
  }
  return std::exchange(pending, pending.substr(head + body)).substr(0, head + body);
}

}  // namespace

LyingServer::LyingServer(Answer answer)
    : acceptor_(io_, tcp::endpoint(asio::ip::address_v4::loopback(), 0)),
      answer_(std::move(answer)) {
  const std::string cert = dir_.file("crt"), key = dir_.file("key");
  EXPECT_EQ(cert_create(cert.c_str(), key.c_str(), "localhost", 1, true), ErrorCode::Ok);
  std::array<char, kFingerprintSize> text{};
  EXPECT_EQ(cert_fingerprint(cert.c_str(), text), ErrorCode::Ok);
  EXPECT_TRUE(parse_fingerprint(text.data(), fingerprint_));
  tls_.use_certificate_file(cert, asio::ssl::context::pem);
  tls_.use_private_key_file(key, asio::ssl::context::pem);
  port_ = acceptor_.local_endpoint().port();
  thread_ = std::thread([this] { serve(); });
}

LyingServer::~LyingServer() {
  ::shutdown(acceptor_.native_handle(), SHUT_RDWR);  // wakes accept()
  thread_.join();
}

void LyingServer::serve() {
  for (int number = 1;; ++number) {
    error_code failed;
    tcp::socket socket = acceptor_.accept(failed);
    if (failed) return;
    serve_connection(std::move(socket), number);
  }
}

void LyingServer::serve_connection(tcp::socket socket, int number) {
  Stream stream(std::move(socket), tls_);
  error_code failed;
  stream.handshake(asio::ssl::stream_base::server, failed);
  std::string pending;
  while (!failed) {
    SeenRequest request{read_request(stream, pending), {}, number};
    if (request.text.empty()) return;
    ++requests_;
    std::smatch found;
    if (std::regex_search(request.text, found, std::regex("nonce=([0-9a-f]+)"))) {
      request.nonce = found[1];
    }
    std::string reply = answer_(request);
    const bool hang_up = reply.ends_with(kHangUp);
    if (hang_up) reply.resize(reply.size() - std::string_view(kHangUp).size());
    if (reply != kSayNothing) asio::write(stream, asio::buffer(reply), failed);
    if (hang_up) return;
  }
}

ClientTokenPtr LyingServer::token() { return parse_token("admin." + std::string(43, 's')); }

std::string LyingServer::signature(const SeenRequest& request, int status,
                                   const std::string& body) {
  const std::string text = "ORV1-R\n" + request.nonce + "\n" + std::to_string(status) + "\n" +
                           to_hex(sha256(body)).c_str();
  return hmac_sha256_hex(token()->secret.view(), text).c_str();
}

std::string LyingServer::signed_reply(const SeenRequest& request, int status,
                                      const std::string& body, const std::string& headers) {
  return "HTTP/1.1 " + std::to_string(status) +
         " Status\r\nORV-Signature: " + signature(request, status, body) +
         "\r\nContent-Length: " + std::to_string(body.size()) + "\r\n" + headers + "\r\n" + body;
}

}  // namespace orv::test
