#include "netproc/https_server.h"

#include <netinet/in.h>
#include <openssl/err.h>
#include <openssl/ssl.h>
#include <sys/socket.h>

#include <algorithm>
#include <string>
#include <string_view>
#include <utility>

#include "common/message.h"

namespace orv {
namespace {

namespace asio = boost::asio;
using asio::ip::tcp;
using boost::system::error_code;

constexpr int kAcceptedPerTurn = 16;
// After running out of descriptors or memory.
constexpr std::chrono::milliseconds kAcceptRetry{500};
// How often a full house is looked through for a place for the client that waits.
constexpr std::chrono::milliseconds kSeatRetry{250};
// The finite-field groups would let a client make us work much harder than itself.
constexpr std::string_view kGroups = "X25519:P-256:P-384";
constexpr const char* kCiphers = "ECDHE+AESGCM:ECDHE+CHACHA20";  // of TLS 1.2; 1.3 has no weak ones

// A client that also speaks HTTP/2 must be told that this server does not.
int choose_protocol(SSL*, const unsigned char** out, unsigned char* out_length,
                    const unsigned char* offered, unsigned length, void*) {
  static constexpr unsigned char kHttp11[] = "\x08http/1.1";
  unsigned char* chosen = nullptr;
  if (SSL_select_next_proto(&chosen, out_length, kHttp11, sizeof kHttp11 - 1, offered, length) !=
      OPENSSL_NPN_NEGOTIATED) {
    return SSL_TLSEXT_ERR_NOACK;
  }
  *out = chosen;
  return SSL_TLSEXT_ERR_OK;
}

int no_passphrase(char*, int, int, void*) { return 0; }

// No session is kept or handed out: the few clients of this API do not notice, and no ticket key
// lives for months in memory that would open recorded connections.
void harden(SSL_CTX* ctx) {
  SSL_CTX_set_min_proto_version(ctx, TLS1_2_VERSION);
  std::string groups(kGroups);  // OpenSSL's macro takes it as if it wrote to it
  SSL_CTX_set1_groups_list(ctx, groups.data());
  SSL_CTX_set_cipher_list(ctx, kCiphers);
  SSL_CTX_set_options(ctx, SSL_OP_NO_RENEGOTIATION | SSL_OP_NO_COMPRESSION | SSL_OP_NO_TICKET |
                               SSL_OP_CLEANSE_PLAINTEXT);
  SSL_CTX_set_session_cache_mode(ctx, SSL_SESS_CACHE_OFF);
  SSL_CTX_set_num_tickets(ctx, 0);
  SSL_CTX_set_alpn_select_cb(ctx, choose_protocol, nullptr);
  SSL_CTX_set_default_passwd_cb(ctx, no_passphrase);
}

Ipv6Bytes ipv6_bytes(const asio::ip::address& address) {
  const auto bytes =
      address.is_v4() ? asio::ip::make_address_v6(asio::ip::v4_mapped, address.to_v4()).to_bytes()
                      : address.to_v6().to_bytes();
  Ipv6Bytes out;
  std::copy(bytes.begin(), bytes.end(), out.begin());
  return out;
}

}  // namespace

HttpsServer::HttpsServer(asio::io_context& loop, const HttpsLimits& limits,
                         SendRequest send_request, std::function<void()> on_empty)
    : loop_(loop), send_request_(std::move(send_request)), acceptor_(loop), retry_timer_(loop) {
  host_.limits = limits;
  host_.submit = [this](const ApiRequest& request, const std::shared_ptr<Connection>& connection) {
    return submit(request, connection);
  };
  host_.abandon = [this](std::uint32_t id) { waiting_.erase(id); };
  host_.closed = [this, on_empty = std::move(on_empty)](const auto& connection) {
    host_.clients.leave(connection->client().key);
    connections_.erase(connection);
    if (connections_.empty()) on_empty();
    // The place goes to the client that has waited for one before anybody else is accepted.
    seat_waiting_client();
    await_clients();
  };
}

int HttpsServer::listen_on(ScopedFd listener, std::span<char> err) {
  if (!listener.valid()) return 0;
  sockaddr_storage address{};
  socklen_t size = sizeof address;
  if (::getsockname(listener.get(), reinterpret_cast<sockaddr*>(&address), &size) != 0) {
    return fail(err, "the listening descriptor is not a socket");
  }
  error_code ec;
  (void)acceptor_.assign(address.ss_family == AF_INET6 ? tcp::v6() : tcp::v4(), listener.get(), ec);
  if (!ec) {
    (void)listener.release();  // the acceptor owns it from here on
    (void)acceptor_.non_blocking(true, ec);
  }
  return ec ? fail(err, "the listening socket cannot be used: %s", ec.message().c_str()) : 0;
}

// Everything is tried on a context of its own, so that a bad pair leaves the one in use alone.
int HttpsServer::configure(const IpcApiConfig& config, std::span<char> err) {
  auto tls = std::make_shared<asio::ssl::context>(asio::ssl::context::tls_server);
  const auto buffer = [](std::string_view text) { return asio::buffer(text.data(), text.size()); };
  harden(tls->native_handle());
  error_code ec;
  (void)tls->use_certificate_chain(buffer(config.cert_pem), ec);
  if (ec) return fail(err, "the certificate cannot be used: %s", ec.message().c_str());
  (void)tls->use_private_key(buffer(config.key_pem), asio::ssl::context::pem, ec);
  if (ec || SSL_CTX_check_private_key(tls->native_handle()) != 1) {
    ERR_clear_error();
    return fail(err, "the key cannot be used or does not belong to the certificate");
  }
  tls_ = std::move(tls);
  host_.clients.set_max_clients(config.max_clients);
  await_clients();
  return 0;
}

void HttpsServer::answer(std::uint32_t id, const ApiResponse& response) {
  const auto found = waiting_.find(id);
  if (found == waiting_.end()) return;
  const auto connection = std::move(found->second);
  waiting_.erase(found);
  connection->answer(response);
}

void HttpsServer::stop() {
  error_code ignored;  // closing is all that is left to do
  (void)acceptor_.close(ignored);
  retry_timer_.cancel();
  waiting_client_.reset();
  const auto connections = std::exchange(connections_, {});
  for (const auto& connection : connections) connection->close();
  waiting_.clear();
}

void HttpsServer::await_clients() {
  if (accepting_ || waiting_client_ || !acceptor_.is_open() || tls_ == nullptr) return;
  accepting_ = true;
  acceptor_.async_wait(tcp::acceptor::wait_read, [this](const error_code& ec) {
    accepting_ = false;
    if (!ec) on_clients();
  });
}

void HttpsServer::on_clients() {
  accepting_ = true;  // a connection that is closed meanwhile must not start a second wait
  for (int i = 0; i < kAcceptedPerTurn && !waiting_client_; ++i) {
    TcpSocket socket(loop_.get_executor());
    error_code ec;
    (void)acceptor_.accept(socket, ec);
    if (ec == asio::error::would_block) break;
    if (ec == asio::error::connection_aborted) continue;
    if (ec) return pause_accepting();
    welcome(std::move(socket));
  }
  accepting_ = false;
  waiting_client_ ? pause_accepting() : await_clients();
}

// A client is accepted before room is made for it: only then is it known whose room that may be.
void HttpsServer::welcome(TcpSocket socket) {
  error_code ec;
  const auto peer = socket.remote_endpoint(ec);
  if (ec) return;  // it has gone already
  const ClientAddress client = client_address(ipv6_bytes(peer.address()));
  if (seat(socket, client)) return;
  waiting_client_ = std::move(socket);
  waiting_address_ = client;
}

// False: there is no place now, and the socket is still the caller's. A client that has its share
// and no connection of its own to spare is turned away.
bool HttpsServer::seat(TcpSocket& socket, const ClientAddress& client) {
  Admission admission = host_.clients.admit(client.key);
  if (admission != Admission::Accepted &&
      (make_room(&client.key) || (admission == Admission::Full && make_room(nullptr)))) {
    admission = host_.clients.admit(client.key);
  }
  if (admission == Admission::Full) return false;
  if (admission == Admission::ShareUsed) {
    error_code ignored;  // closing is all that is left to do
    (void)socket.close(ignored);
    return true;
  }
  error_code ec;
  (void)socket.set_option(tcp::no_delay(true), ec);  // only costs speed when it fails
  const auto connection = std::make_shared<Connection>(host_, std::move(socket), tls_, client);
  connections_.insert(connection);
  connection->start();
  return true;
}

// Closes the connection that has been to spare for the longest time, of this client only when one
// is given.
bool HttpsServer::make_room(const Ipv6Bytes* client) {
  const auto now = Connection::Clock::now();
  std::shared_ptr<Connection> chosen;
  Connection::Clock::time_point chosen_since;
  for (const auto& connection : connections_) {
    if (client != nullptr && connection->client().key != *client) continue;
    const auto since = connection->spare_since(now);
    if (!since || (chosen != nullptr && *since >= chosen_since)) continue;
    chosen = connection;
    chosen_since = *since;
  }
  if (chosen != nullptr) chosen->close();
  return chosen != nullptr;
}

void HttpsServer::seat_waiting_client() {
  if (!waiting_client_) return;
  TcpSocket socket = std::move(*waiting_client_);
  waiting_client_.reset();  // first: closing a connection to make room comes back here
  if (!seat(socket, waiting_address_)) waiting_client_ = std::move(socket);
}

// Goes on after a while: something ran out, or a client waits for a place.
void HttpsServer::pause_accepting() {
  accepting_ = true;
  retry_timer_.expires_after(waiting_client_ ? kSeatRetry : kAcceptRetry);
  retry_timer_.async_wait([this](const error_code& ec) {
    accepting_ = false;
    if (ec) return;
    seat_waiting_client();
    waiting_client_ ? pause_accepting() : await_clients();
  });
}

std::uint32_t HttpsServer::submit(const ApiRequest& request,
                                  const std::shared_ptr<Connection>& connection) {
  do {
    ++last_id_;
  } while (last_id_ == 0 || waiting_.contains(last_id_));
  if (!send_request_(last_id_, request)) return 0;
  waiting_[last_id_] = connection;
  return last_id_;
}

}  // namespace orv
