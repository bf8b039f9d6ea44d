#include "console/http_server.h"

#include <algorithm>
#include <boost/asio/write.hpp>
#include <boost/beast/core/basic_stream.hpp>
#include <boost/beast/core/flat_buffer.hpp>
#include <boost/beast/http/parser.hpp>
#include <boost/beast/http/read.hpp>
#include <boost/beast/http/string_body.hpp>
#include <utility>

#include "common/message.h"

namespace orv {

namespace asio = boost::asio;
namespace beast = boost::beast;
namespace http = boost::beast::http;
using asio::ip::tcp;
using boost::system::error_code;

namespace {

constexpr std::uint32_t kMaxHead = 16384;  // bytes of request line and header fields
constexpr std::uint64_t kMaxBody = 32768;  // bytes; no server takes more
constexpr std::size_t kReadChunk = 4096;
constexpr std::chrono::milliseconds kAcceptRetry{500};
constexpr std::string_view kEventsPath = "/api/events";

using Parser = http::request_parser<http::string_body>;
using Stream = beast::basic_stream<tcp, asio::io_context::executor_type>;
using QuietTimer = asio::basic_waitable_timer<std::chrono::steady_clock,
                                              asio::wait_traits<std::chrono::steady_clock>,
                                              asio::io_context::executor_type>;

std::string_view view(beast::string_view text) { return {text.data(), text.size()}; }

}  // namespace

// One browser connection. It goes round: await_request, read_request, on_request, then answer and
// send, or a refusal, and from there to await_request or close. Only a stream leaves the circle: it
// alternates between pump and write_event until it is closed. Any step that fails closes.
class LocalConnection : public std::enable_shared_from_this<LocalConnection> {
 public:
  LocalConnection(LocalServer& server, Stream stream)
      : server_(server), stream_(std::move(stream)), quiet_timer_(stream_.get_executor()) {}

  void start() { await_request(true); }
  void wake();
  void close();
  [[nodiscard]] bool signed_in() const { return signed_in_; }

 private:
  // A completion handler that keeps the connection alive and does nothing once it is closed.
  template <typename Next>
  auto then(Next next) {
    return [self = shared_from_this(), next](const error_code& ec, std::size_t n = 0) {
      if (!self->closed_) next(*self, ec, n);
    };
  }
  void await_request(bool first);
  void read_request();
  void on_read_error(const error_code& ec);
  void on_request();
  GuardVerdict judge();
  void answer();
  void send(const LocalReply& reply);
  void start_stream();
  void pump();
  void write_event(std::string text);

  LocalServer& server_;
  Stream stream_;
  // One request of the largest size, and the head of the next that came in the same read.
  beast::flat_buffer buffer_{std::size_t{2} * kMaxHead + kMaxBody};
  std::optional<Parser> parser_;
  std::string out_;
  QuietTimer quiet_timer_;
  NextEvent next_event_;  // set: the connection is a stream
  bool writing_ = false;  // a write of the stream is under way
  bool signed_in_ = false;
  bool keep_alive_ = false;
  bool closed_ = false;
};

// A request is read in two steps, so that its time limit begins with its first byte.
void LocalConnection::await_request(bool first) {
  parser_.emplace();
  parser_->header_limit(kMaxHead);
  parser_->body_limit(kMaxBody);
  if (buffer_.size() > 0) return read_request();  // it came along with the last one
  stream_.expires_after(first ? server_.limits_.request : server_.limits_.idle);
  stream_.async_read_some(buffer_.prepare(kReadChunk),
                          then([](LocalConnection& c, const error_code& ec, std::size_t n) {
                            if (ec) return c.close();
                            c.buffer_.commit(n);
                            c.read_request();
                          }));
}

void LocalConnection::read_request() {
  stream_.expires_after(server_.limits_.request);
  http::async_read(stream_, buffer_, *parser_,
                   then([](LocalConnection& c, const error_code& ec, std::size_t) {
                     ec ? c.on_read_error(ec) : c.on_request();
                   }));
}

void LocalConnection::on_read_error(const error_code& ec) {
  keep_alive_ = false;  // what follows on this connection may be no request
  if (ec == http::error::body_limit) return send(error_reply(kLocalTooLarge));
  if (ec == http::error::header_limit || ec == http::error::buffer_overflow) {
    return send(error_reply(kLocalHeadTooLarge));
  }
  // Errors of this category are of the bytes that came, all others of the connection.
  const bool malformed = ec.category() == http::make_error_code(http::error::bad_method).category();
  if (malformed && ec != http::error::end_of_stream && ec != http::error::partial_message) {
    return send(error_reply(kLocalBadRequest));
  }
  close();  // gone, or out of time
}

GuardVerdict LocalConnection::judge() {
  const auto& message = parser_->get();
  // Of two fields of one name, the guard might judge the one and somebody else believe the other.
  const bool ambiguous = message.count(http::field::host) > 1 ||
                         message.count(http::field::origin) > 1 ||
                         message.count(http::field::cookie) > 1;
  return server_.guard_->judge({.method = view(message.method_string()),
                                .target = view(message.target()),
                                .host = view(message[http::field::host]),
                                .origin = view(message[http::field::origin]),
                                .cookie = view(message[http::field::cookie]),
                                .ambiguous = ambiguous});
}

void LocalConnection::on_request() {
  keep_alive_ = parser_->keep_alive();
  switch (judge()) {
    case GuardVerdict::Refuse:
      // A stranger shall not hold a place; the page may have sent one request that was too old.
      keep_alive_ = signed_in_;
      return send(error_reply(403, "forbidden", server_.guard_->reason()));
    case GuardVerdict::SignIn: {
      LocalReply reply;
      reply.status = 303;
      reply.type = {};
      reply.set_cookie = server_.guard_->set_cookie();
      reply.location = "/";
      return send(reply);
    }
    case GuardVerdict::Pass: signed_in_ = true; return answer();
  }
}

void LocalConnection::answer() {
  const auto& message = parser_->get();
  if (view(message.target()) == kEventsPath) {
    return message.method() == http::verb::get ? start_stream() : send(error_reply(kLocalMethod));
  }
  LocalRequest request{.method = std::string(view(message.method_string())),
                       .target = std::string(view(message.target())),
                       .if_match = std::string(view(message[http::field::if_match])),
                       .body = message.body()};
  // The answer may take as long as a server's; its own time limits end it.
  stream_.expires_never();
  // Weak: a browser that has gone is not kept for an answer that nobody reads.
  server_.handler_.handle(request, [weak = weak_from_this()](const LocalReply& reply) {
    if (const auto self = weak.lock(); self != nullptr && !self->closed_) self->send(reply);
  });
}

void LocalConnection::send(const LocalReply& reply) {
  out_ = reply_text(reply, keep_alive_, parser_->get().method() == http::verb::head);
  stream_.expires_after(server_.limits_.reply);
  asio::async_write(stream_, asio::buffer(out_),
                    then([](LocalConnection& c, const error_code& ec, std::size_t) {
                      if (ec || !c.keep_alive_) return c.close();
                      std::string().swap(c.out_);  // an idle connection holds little memory
                      c.await_request(false);
                    }));
}

void LocalConnection::start_stream() {
  next_event_ = server_.handler_.open_stream();
  write_event(event_stream_head());
}

void LocalConnection::wake() {
  if (next_event_ && !writing_) pump();
}

// One event is under way at a time and the next is made when the browser has taken it: a slow one
// gets fewer and newer events and costs no memory.
void LocalConnection::pump() {
  std::string event = next_event_();
  if (!event.empty()) return write_event(std::move(event));
  // A browser that has gone is noticed by a write that fails.
  quiet_timer_.expires_after(server_.limits_.keep_alive);
  quiet_timer_.async_wait(then([](LocalConnection& c, const error_code& ec, std::size_t) {
    if (!ec && !c.writing_) c.write_event(": still here\n\n");
  }));
}

void LocalConnection::write_event(std::string text) {
  writing_ = true;
  quiet_timer_.cancel();
  out_ = std::move(text);
  stream_.expires_after(server_.limits_.reply);
  asio::async_write(stream_, asio::buffer(out_),
                    then([](LocalConnection& c, const error_code& ec, std::size_t) {
                      if (ec) return c.close();
                      c.writing_ = false;
                      c.pump();
                    }));
}

void LocalConnection::close() {
  if (closed_) return;
  closed_ = true;
  quiet_timer_.cancel();
  stream_.close();
  // Last: it may drop the server's share of this object.
  server_.closed(shared_from_this());
}

LocalServer::LocalServer(asio::io_context& loop, const LocalHttpLimits& limits,
                         LocalHandler handler)
    : loop_(loop),
      limits_(limits),
      handler_(std::move(handler)),
      acceptor_(loop),
      retry_timer_(loop) {}

int LocalServer::listen(const std::string& address, std::uint16_t& port, std::span<char> err) {
  error_code ec;
  const tcp::endpoint endpoint(asio::ip::make_address(address, ec), port);
  if (!ec) (void)acceptor_.open(endpoint.protocol(), ec);
  // Or a console that is started again could not have its port for a minute.
  if (!ec) (void)acceptor_.set_option(asio::socket_base::reuse_address(true), ec);
  if (!ec) (void)acceptor_.bind(endpoint, ec);
  if (!ec) (void)acceptor_.listen(asio::socket_base::max_listen_connections, ec);
  // Port 0 has become a free one.
  if (!ec) port = acceptor_.local_endpoint(ec).port();
  if (!ec) return 0;
  return fail(err, "cannot listen on %s port %u: %s", address.c_str(), unsigned{port},
              ec.message().c_str());
}

void LocalServer::start(Guard& guard) {
  guard_ = &guard;
  accept();
}

void LocalServer::accept() {
  if (!acceptor_.is_open()) return;
  acceptor_.async_accept(loop_.get_executor(), [this](const error_code& ec, TcpSocket socket) {
    if (ec == asio::error::operation_aborted) return;
    if (ec && ec != asio::error::connection_aborted) return pause_accepting();
    if (!ec) welcome(std::move(socket));
    accept();
  });
}

// Out of descriptors or memory: trying again at once would only burn the processor.
void LocalServer::pause_accepting() {
  retry_timer_.expires_after(kAcceptRetry);
  retry_timer_.async_wait([this](const error_code& ec) {
    if (!ec) accept();
  });
}

// All places taken, those who never signed in make room: no other user of the machine can keep the
// console's owner out by holding connections.
void LocalServer::welcome(TcpSocket socket) {
  if (connections_.size() >= limits_.connections) {
    const auto stranger = std::find_if(connections_.begin(), connections_.end(),
                                       [](const auto& c) { return !c->signed_in(); });
    if (stranger == connections_.end()) return;  // the newcomer is closed
    (*stranger)->close();
  }
  error_code ignored;  // only costs speed when it fails
  (void)socket.set_option(tcp::no_delay(true), ignored);
  const auto connection = std::make_shared<LocalConnection>(*this, Stream(std::move(socket)));
  connections_.insert(connection);
  connection->start();
}

void LocalServer::closed(const std::shared_ptr<LocalConnection>& connection) {
  connections_.erase(connection);
}

void LocalServer::wake_streams() {
  const auto connections = connections_;  // a write that fails at once takes one out
  for (const auto& connection : connections) connection->wake();
}

void LocalServer::stop() {
  error_code ignored;  // closing is all that is left to do
  (void)acceptor_.close(ignored);
  retry_timer_.cancel();
  const auto connections = connections_;  // each takes itself out
  for (const auto& connection : connections) connection->close();
}

}  // namespace orv
