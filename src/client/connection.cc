#include "client/connection.h"

#include <openssl/ssl.h>
#include <openssl/x509.h>
#include <string.h>
#include <sys/socket.h>
#include <time.h>

#include <algorithm>
#include <array>
#include <boost/asio/buffer.hpp>
#include <boost/asio/ip/tcp.hpp>
#include <boost/asio/redirect_error.hpp>
#include <boost/asio/ssl/context.hpp>
#include <boost/asio/ssl/stream.hpp>
#include <boost/asio/steady_timer.hpp>
#include <boost/asio/this_coro.hpp>
#include <boost/asio/use_awaitable.hpp>
#include <boost/asio/write.hpp>
#include <boost/beast/core/flat_buffer.hpp>
#include <boost/beast/http/parser.hpp>
#include <boost/beast/http/read.hpp>
#include <boost/beast/http/string_body.hpp>
#include <cerrno>
#include <deque>
#include <utility>
#include <vector>

#include "client/resolve.h"
#include "client/signature.h"
#include "common/text.h"

namespace orv {
namespace {

namespace asio = boost::asio;
namespace http = boost::beast::http;
using asio::ip::tcp;
using boost::system::error_code;
using std::chrono::steady_clock;
using Deadline = steady_clock::time_point;
using TlsStream = asio::ssl::stream<tcp::socket>;
using Parser = http::response_parser<http::string_body>;

// The refusals that are made before a request is known to be good, by the scheduler or by the
// process that takes its connections. No other reply may be unsigned.
constexpr std::array<int, 11> kUnsignedStatuses = {400, 401, 405, 413, 414, 417,
                                                   429, 431, 501, 503, 504};

// The certificate is self-signed: the pin takes the place of a name and an issuer.
asio::ssl::context& tls_context() {
  static asio::ssl::context context = [] {
    asio::ssl::context made(asio::ssl::context::tls_client);
    // The server offers nothing older; what does is not the server.
    SSL_CTX_set_min_proto_version(made.native_handle(), TLS1_2_VERSION);
    made.set_verify_mode(asio::ssl::verify_none);
    return made;
  }();
  return context;
}

// The digest of the certificate that the peer has shown, and has proved to own in the handshake.
bool peer_fingerprint(TlsStream& stream, Sha256Digest& out) {
  const std::unique_ptr<X509, decltype(&X509_free)> certificate(
      SSL_get1_peer_certificate(stream.native_handle()), X509_free);
  unsigned size = 0;
  return certificate != nullptr &&
         X509_digest(certificate.get(), EVP_sha256(), out.data(), &size) == 1 && size == out.size();
}

// Closes a socket when its time is up, which ends whatever waits for it.
class Watchdog {
 public:
  Watchdog(tcp::socket& socket, Deadline deadline)
      : timer_(socket.get_executor(), deadline), watched_(std::make_shared<Watched>(&socket)) {
    timer_.async_wait([watched = watched_](error_code ended) {
      if (ended || watched->socket == nullptr) return;
      watched->bitten = true;
      error_code ignored;
      watched->socket->close(ignored);
    });
  }
  Watchdog(const Watchdog&) = delete;
  Watchdog& operator=(const Watchdog&) = delete;
  ~Watchdog() { watched_->socket = nullptr; }
  [[nodiscard]] bool bitten() const { return watched_->bitten; }

 private:
  struct Watched {
    explicit Watched(tcp::socket* watched) : socket(watched) {}
    tcp::socket* socket;  // null once the watch is over: the timer's handler may still come
    bool bitten = false;
  };
  asio::steady_timer timer_;
  std::shared_ptr<Watched> watched_;
};

// Tries one address after the other. Each gets an equal share of the time that is left, so that one
// that answers nothing leaves some to the next. Empty, or why the last one failed.
asio::awaitable<std::string> connect_any(tcp::socket& socket, std::vector<tcp::endpoint> endpoints,
                                         Deadline deadline) {
  std::string error = "timed out";
  for (std::size_t i = 0; i < endpoints.size(); ++i) {
    const auto now = steady_clock::now();
    if (now >= deadline) break;
    error_code failed;
    // A socket that failed to connect is of no use for the next address, maybe of another family.
    socket.close(failed);
    socket.open(endpoints[i].protocol(), failed);
    if (!failed) {
      const auto share = (deadline - now) / static_cast<std::ptrdiff_t>(endpoints.size() - i);
      const Watchdog watchdog(socket, now + share);
      co_await socket.async_connect(endpoints[i],
                                    asio::redirect_error(asio::use_awaitable, failed));
      if (!failed && !watchdog.bitten()) co_return std::string();
      if (watchdog.bitten()) failed = asio::error::timed_out;
    }
    error = failed.message();
  }
  co_return error;
}

// Resolves, connects and shakes hands; whose certificate it is, the caller decides. Empty, or one
// line.
asio::awaitable<std::string> open_stream(TlsStream& stream, ServerAddress address,
                                         Deadline deadline) {
  std::string error;
  std::vector<tcp::endpoint> endpoints = co_await resolve_host(address, deadline, error);
  if (endpoints.empty()) co_return error;
  tcp::socket& socket = stream.next_layer();
  error = co_await connect_any(socket, std::move(endpoints), deadline);
  if (!error.empty()) co_return error;
  error_code failed;
  // Head and body are two writes of one request; without it the second may wait for an
  // acknowledgement of the first.
  socket.set_option(tcp::no_delay(true), failed);
  const Watchdog watchdog(socket, deadline);
  // A handshake that succeeds proves that the peer has the key of the certificate it shows.
  co_await stream.async_handshake(asio::ssl::stream_base::client,
                                  asio::redirect_error(asio::use_awaitable, failed));
  if (watchdog.bitten()) co_return "timed out";
  co_return failed ? "no TLS connection: " + failed.message() : std::string();
}

bool is_visible(std::string_view text) {
  return std::all_of(text.begin(), text.end(), [](char c) { return c > 0x20 && c < 0x7F; });
}

// What must never reach the wire: a line end in a header, or a blank in the request line, would
// make another request of it than the one that was signed.
const char* fault_of(const ClientRequest& request) {
  constexpr std::array<std::string_view, 4> kMethods = {"GET", "PUT", "POST", "DELETE"};
  if (std::find(kMethods.begin(), kMethods.end(), request.method) == kMethods.end()) {
    return "unknown method";
  }
  if (!request.path.starts_with("/") || !is_visible(request.path) || !is_visible(request.query) ||
      request.path.find_first_of("?#") != std::string::npos ||
      request.query.find('#') != std::string::npos) {
    return "malformed path or query";
  }
  return is_visible(request.if_match) ? nullptr : "malformed tag";
}

// The head of the request as it goes over the wire.
// The body is sent from where it lies: it may hold a password, and this text is not wiped.
std::string wire_text(const ClientRequest& request, const ServerAddress& address,
                      const std::string& authorized) {
  std::string text = request.method + ' ' + request.path;
  if (!request.query.empty()) text += '?' + request.query;
  text += " HTTP/1.1\r\nHost: " + address.text() + "\r\nAuthorization: " + authorized + "\r\n";
  if (!request.if_match.empty()) text += "If-Match: " + request.if_match + "\r\n";
  if (!request.body.empty()) text += "Content-Type: application/json\r\n";
  // Also a length of 0 where the method expects content (RFC 9110, section 8.6).
  if (!request.body.empty() || request.method == "PUT" || request.method == "POST") {
    text += "Content-Length: " + std::to_string(request.body.size()) + "\r\n";
  }
  return text += "\r\n";
}

ClientReply failure(ReplyKind kind, std::string error) {
  ClientReply reply;
  reply.kind = kind;
  reply.error = std::move(error);
  return reply;
}

ClientReply no_answer(const std::string& why) {
  return failure(ReplyKind::Unreachable, "no answer from the server: " + why);
}

}  // namespace

std::string path_segment(std::string_view name) {
  std::string text;
  for (const char c : name) {
    const auto byte = static_cast<unsigned char>(c);
    // The unreserved characters of RFC 3986, section 2.3.
    const bool plain = is_digit(c) || (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') ||
                       std::string_view("-._~").find(c) != std::string_view::npos;
    if (plain) {
      text += c;
    } else {
      text += {'%', kUpperHexDigits[byte >> 4U], kUpperHexDigits[byte & 15U]};
    }
  }
  return text;
}

// The connection itself; ApiConnection is its handle. Coroutines share it, so the handle may go
// first.
class ApiConnection::State : public std::enable_shared_from_this<State> {
 public:
  State(asio::any_io_executor executor, ServerAddress address, const Sha256Digest& fingerprint,
        ClientTokenPtr token)
      : executor_(std::move(executor)),
        address_(std::move(address)),
        fingerprint_(fingerprint),
        token_(std::move(token)) {}

  static asio::awaitable<ClientReply> exchange(std::shared_ptr<State> self, ClientRequest request,
                                               Deadline deadline);
  void close() {
    error_code ignored;
    if (stream_) stream_->next_layer().close(ignored);
    closed_ = true;
  }
  void end() {
    ended_ = true;
    close();
  }

 private:
  class Turn;
  struct Attempt;

  asio::awaitable<ClientReply> attempt(const ClientRequest& request, Deadline deadline);
  asio::awaitable<ClientReply> connect(Deadline deadline);
  asio::awaitable<ClientReply> converse(const ClientRequest& request, Deadline deadline);
  [[nodiscard]] ClientReply judge(const Parser& parser, const std::string& nonce) const;
  [[nodiscard]] bool is_reusable() const;

  asio::any_io_executor executor_;
  ServerAddress address_;
  Sha256Digest fingerprint_;
  ClientTokenPtr token_;
  std::unique_ptr<TlsStream> stream_;        // null: not connected
  bool closed_ = false;                      // by close(), since the exchange at hand began
  bool ended_ = false;                       // the handle is gone
  std::deque<asio::steady_timer*> waiting_;  // whose turn comes, the first one's it is
};

// A place in the row of exchanges. The one in front is told to go on when the one before leaves.
class ApiConnection::State::Turn {
 public:
  Turn(State& state, asio::steady_timer& timer) : state_(state), timer_(timer) {
    state_.waiting_.push_back(&timer_);
  }
  Turn(const Turn&) = delete;
  Turn& operator=(const Turn&) = delete;
  // NOLINTNEXTLINE(bugprone-exception-escape): a timer is never refused its cancel()
  ~Turn() {
    auto& waiting = state_.waiting_;
    const bool was_first = is_mine();
    waiting.erase(std::find(waiting.begin(), waiting.end(), &timer_));
    // Cancelling a timer that waits for nothing does nothing.
    if (was_first && !waiting.empty()) waiting.front()->cancel();
  }
  [[nodiscard]] bool is_mine() const { return state_.waiting_.front() == &timer_; }

 private:
  State& state_;
  asio::steady_timer& timer_;
};

asio::awaitable<ClientReply> ApiConnection::State::exchange(std::shared_ptr<State> self,
                                                            ClientRequest request,
                                                            Deadline deadline) {
  if (const char* fault = fault_of(request)) {
    co_return failure(ReplyKind::NotSent, std::string("the request cannot be sent: ") + fault);
  }
  // One timer for both ends of the wait: the deadline, or cancelled when the turn has come.
  asio::steady_timer timer(self->executor_, deadline);
  const Turn turn(*self, timer);
  if (!turn.is_mine()) {
    error_code ended;
    co_await timer.async_wait(asio::redirect_error(asio::use_awaitable, ended));
    if (!turn.is_mine()) co_return no_answer("timed out");
  }
  // The handle may have gone while this exchange waited.
  if (self->ended_) co_return no_answer("closed");
  self->closed_ = false;
  // The server closes a connection that is idle for long. That shows here, or else as an answer
  // that does not come; a GET is then tried anew, on a new connection.
  const bool reused = self->is_reusable();
  if (!reused) self->stream_.reset();
  ClientReply reply = co_await self->attempt(request, deadline);
  // Only on a connection that was kept: a server that cannot be reached is not asked twice.
  if (reply.kind == ReplyKind::Unreachable && reused && request.method == "GET" && !self->closed_ &&
      !self->ended_ && steady_clock::now() < deadline) {
    reply = co_await self->attempt(request, deadline);
  }
  co_return reply;
}

// Nothing may have come since the last reply, neither the end nor bytes that nobody asked for.
bool ApiConnection::State::is_reusable() const {
  if (!stream_ || !stream_->next_layer().is_open()) return false;
  // Below TLS, and only peeked at: also an orderly end or a new session ticket is a reason to
  // connect anew, and costs less than a change whose fate nobody knows.
  char byte = 0;
  const auto got = ::recv(stream_->next_layer().native_handle(), &byte, 1, MSG_PEEK | MSG_DONTWAIT);
  return got < 0 && errno == EAGAIN;
}

asio::awaitable<ClientReply> ApiConnection::State::attempt(const ClientRequest& request,
                                                           Deadline deadline) {
  if (!stream_) {
    ClientReply refused = co_await connect(deadline);
    if (!refused.error.empty()) co_return refused;
  }
  ClientReply reply = co_await converse(request, deadline);
  // After a failure nobody knows what is still on its way: the connection is of no use any more.
  if (reply.kind != ReplyKind::Signed && reply.kind != ReplyKind::Unsigned) stream_.reset();
  co_return reply;
}

// An empty error once the server is known to be the one meant.
asio::awaitable<ClientReply> ApiConnection::State::connect(Deadline deadline) {
  stream_ = std::make_unique<TlsStream>(tcp::socket(executor_), tls_context());
  const std::string error = co_await open_stream(*stream_, address_, deadline);
  Sha256Digest seen{};
  // close() may have come while the name was being resolved, when there was no socket to close.
  const bool has_certificate = error.empty() && !closed_ && peer_fingerprint(*stream_, seen);
  if (has_certificate && seen == fingerprint_) co_return ClientReply();
  stream_.reset();
  if (!error.empty() || closed_) co_return no_answer(error.empty() ? "closed" : error);
  co_return failure(ReplyKind::NotTrusted,
                    "the server's certificate is another one, nothing was sent (its SHA-256 "
                    "fingerprint: " +
                        fingerprint_text(seen) + ")");
}

asio::awaitable<ClientReply> ApiConnection::State::converse(const ClientRequest& request,
                                                            Deadline deadline) {
  // Signed for each attempt: the server takes a nonce once, and a time within 300 seconds of its
  // own.
  const std::string nonce = new_nonce();
  const std::string authorized = authorization(
      *token_, {request.method, request.path, request.query, request.body, request.if_match},
      ::time(nullptr), nonce);
  if (nonce.empty() || authorized.empty()) {
    co_return failure(ReplyKind::NotSent, "the request cannot be sent: it cannot be signed");
  }
  const Watchdog watchdog(stream_->next_layer(), deadline);
  const std::string head = wire_text(request, address_, authorized);
  const std::array<asio::const_buffer, 2> wire = {asio::buffer(head), asio::buffer(request.body)};
  error_code failed;
  co_await asio::async_write(*stream_, wire, asio::redirect_error(asio::use_awaitable, failed));

  // The limits hold whatever the server announces; the deadline holds however slowly it sends.
  Parser parser;
  parser.header_limit(static_cast<std::uint32_t>(kMaxReplyHead));
  parser.body_limit(kMaxReplyBody);
  boost::beast::flat_buffer buffer(kMaxReplyHead + kMaxReplyBody);
  if (!failed) {
    co_await http::async_read_header(*stream_, buffer, parser,
                                     asio::redirect_error(asio::use_awaitable, failed));
  }
  // Of a response, Boost 1.74 checks an announced length only once that many bytes are there.
  if (!failed && parser.content_length().value_or(0) > kMaxReplyBody) {
    failed = http::error::body_limit;
  }
  if (!failed) {
    co_await http::async_read(*stream_, buffer, parser,
                              asio::redirect_error(asio::use_awaitable, failed));
  }
  if (failed) {
    // Only the server knows how far the request came; after a change that must be said.
    std::string why = watchdog.bitten() ? "timed out" : closed_ ? "closed" : failed.message();
    if (request.method != "GET") why += " (the request may have been carried out)";
    co_return no_answer(why);
  }
  ClientReply reply = judge(parser, nonce);
  // More than was asked for, or a server that wants to close: the next exchange connects anew.
  if (!parser.get().keep_alive() || buffer.size() != 0) stream_.reset();
  co_return reply;
}

ClientReply ApiConnection::State::judge(const Parser& parser, const std::string& nonce) const {
  const auto& message = parser.get();
  const int status = static_cast<int>(message.result_int());
  const auto signatures = message.equal_range("ORV-Signature");
  const bool may_be_unsigned = std::find(kUnsignedStatuses.begin(), kUnsignedStatuses.end(),
                                         status) != kUnsignedStatuses.end();
  ClientReply reply;
  reply.status = status;
  // A signature that is there must be right, also of a reply that needs none, and there is one.
  if (signatures.first == signatures.second) {
    if (!may_be_unsigned) {
      return failure(ReplyKind::NotTrusted,
                     "the reply (status " + std::to_string(status) + ") carries no signature");
    }
    reply.kind = ReplyKind::Unsigned;
    const auto after = message[http::field::retry_after];
    (void)parse_u32({after.data(), after.size()}, reply.retry_after_s);  // 0 when it is no number
  } else {
    const auto text = signatures.first->value();
    if (std::next(signatures.first) != signatures.second ||
        !is_reply_signature(*token_, nonce, status, message.body(), {text.data(), text.size()})) {
      return failure(ReplyKind::NotTrusted, "the reply's signature is wrong");
    }
    reply.kind = ReplyKind::Signed;
  }
  reply.body = message.body();
  return reply;
}

ApiConnection::ApiConnection(asio::any_io_executor executor, ServerAddress address,
                             const Sha256Digest& fingerprint, ClientTokenPtr token)
    : state_(std::make_shared<State>(std::move(executor), std::move(address), fingerprint,
                                     std::move(token))) {}

ApiConnection::~ApiConnection() {
  if (state_) state_->end();
}

asio::awaitable<ClientReply> ApiConnection::exchange(ClientRequest request, Deadline deadline) {
  return State::exchange(state_, std::move(request), deadline);
}

void ApiConnection::close() { state_->close(); }

asio::awaitable<std::string> fetch_fingerprint(ServerAddress address, Deadline deadline,
                                               Sha256Digest& out) {
  // No request and so no token: to this server nothing is trusted yet.
  TlsStream stream(tcp::socket(co_await asio::this_coro::executor), tls_context());
  std::string error = co_await open_stream(stream, std::move(address), deadline);
  if (error.empty() && !peer_fingerprint(stream, out)) error = "the server shows no certificate";
  co_return error;
}

}  // namespace orv
