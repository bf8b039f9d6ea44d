#include "netproc/connection.h"

#include <string.h>
#include <strings.h>
#include <time.h>

#include <array>
#include <boost/asio/ssl/stream.hpp>
#include <boost/asio/steady_timer.hpp>
#include <boost/asio/write.hpp>
#include <boost/beast/core/basic_stream.hpp>
#include <boost/beast/core/flat_buffer.hpp>
#include <boost/beast/http/parser.hpp>
#include <boost/beast/http/read.hpp>
#include <boost/beast/http/string_body.hpp>
#include <string>
#include <utility>

#include "common/log.h"
#include "common/secret.h"
#include "netproc/http_message.h"

namespace orv {
namespace {

namespace asio = boost::asio;
namespace beast = boost::beast;
namespace http = boost::beast::http;
using boost::system::error_code;
using std::chrono::steady_clock;

constexpr std::size_t kReadChunk = 4096;                   // bytes
constexpr std::size_t kMaxBuffered = 2 * kMaxHttpHead;     // bytes read ahead of the parser
constexpr std::size_t kMaxDrained = std::size_t{1} << 20;  // bytes read and dropped at the end
constexpr std::string_view kContinue = "HTTP/1.1 100 Continue\r\n\r\n";

// Requests carry bearer secrets: the memory they were read into is zeroed before it goes back.
using Parser = http::request_parser<http::string_body, WipingAllocator<char>>;
using TcpStream = beast::basic_stream<asio::ip::tcp, asio::io_context::executor_type>;

enum class Stage { Handshake, Idle, Request, Answer, Reply, Farewell, Closed };

}  // namespace

class Connection : public std::enable_shared_from_this<Connection> {
 public:
  Connection(ConnectionHost& host, TcpSocket socket, std::shared_ptr<asio::ssl::context> tls,
             const ClientAddress& client)
      : host_(host),
        client_(client),
        tls_(std::move(tls)),
        stream_(TcpStream(std::move(socket)), *tls_),
        answer_timer_(tcp().get_executor()) {}

  void start();
  void answer(const ApiResponse& response);
  void close();
  [[nodiscard]] const ClientAddress& client() const { return client_; }
  [[nodiscard]] std::optional<steady_clock::time_point> idle_since() const {
    if (stage_ != Stage::Idle) return std::nullopt;
    return idle_since_;
  }

 private:
  TcpStream& tcp() { return stream_.next_layer(); }
  // A completion handler that keeps the connection alive and does nothing once it is closed.
  template <typename Next>
  auto then(Next next) {
    return [self = shared_from_this(), next](const error_code& ec, std::size_t n = 0) {
      if (self->stage_ != Stage::Closed) next(*self, ec, n);
    };
  }
  void await_request(bool first);
  void read_head();
  void on_head();
  const HttpError* check_head(std::int64_t& retry_after_s);
  void read_body();
  void on_parse_error(const error_code& ec);
  void submit();
  void await_answer();
  void refuse(const HttpError& error, std::int64_t retry_after_s = 0);
  void send(const HttpReply& reply);
  void farewell();
  void drain(std::size_t drained);

  ConnectionHost& host_;
  const ClientAddress client_;
  const std::shared_ptr<asio::ssl::context> tls_;
  asio::ssl::stream<TcpStream> stream_;
  asio::basic_waitable_timer<steady_clock, asio::wait_traits<steady_clock>,
                             asio::io_context::executor_type>
      answer_timer_;
  beast::basic_flat_buffer<WipingAllocator<char>> buffer_{kMaxBuffered};
  std::optional<Parser> parser_;
  ApiRequest request_;
  std::string out_;
  std::array<char, kReadChunk> dropped_{};
  std::uint32_t request_id_ = 0;  // 0: none is with the scheduler
  bool keep_alive_ = false;
  Stage stage_ = Stage::Handshake;
  steady_clock::time_point idle_since_;
};

void Connection::start() {
  tcp().expires_after(host_.limits.handshake);
  stream_.async_handshake(asio::ssl::stream_base::server,
                          then([](Connection& c, const error_code& ec, std::size_t) {
                            if (ec) return c.close();
                            c.tcp().expires_after(c.host_.limits.request);
                            c.await_request(true);
                          }));
}

void Connection::await_request(bool first) {
  parser_.emplace();
  parser_->header_limit(kMaxHttpHead);
  parser_->body_limit(kIpcMaxRequestBody);
  if (buffer_.size() > 0) {  // the next request came along with the last one
    tcp().expires_after(host_.limits.request);
    return read_head();
  }
  if (!first) {
    stage_ = Stage::Idle;
    idle_since_ = steady_clock::now();
    tcp().expires_after(host_.limits.idle);
  }
  stream_.async_read_some(buffer_.prepare(kReadChunk),
                          then([first](Connection& c, const error_code& ec, std::size_t n) {
                            if (ec) return c.farewell();
                            c.buffer_.commit(n);
                            if (!first) c.tcp().expires_after(c.host_.limits.request);
                            c.read_head();
                          }));
}

void Connection::read_head() {
  stage_ = Stage::Request;
  http::async_read_header(stream_, buffer_, *parser_,
                          then([](Connection& c, const error_code& ec, std::size_t) {
                            ec ? c.on_parse_error(ec) : c.on_head();
                          }));
}

namespace {

std::string_view view(boost::beast::string_view text) { return {text.data(), text.size()}; }

bool once(const Parser::value_type& message, http::field field) {
  return message.count(field) <= 1;
}

bool ambiguous(const Parser& parser) {
  const auto& message = parser.get();
  return !once(message, http::field::authorization) || !once(message, http::field::if_match) ||
         !once(message, http::field::host) ||
         (message.version() >= 11 && message.count(http::field::host) == 0) ||
         (message.count(http::field::transfer_encoding) > 0 && !parser.chunked());
}

}  // namespace

const HttpError* Connection::check_head(std::int64_t& retry_after_s) {
  retry_after_s = host_.clients.blocked_for(client_.key, steady_seconds());
  if (retry_after_s > 0) return &kHttpTooManyFailures;
  const auto& message = parser_->get();
  const HttpHead head{.method = view(message.method_string()),
                      .target = view(message.target()),
                      .authorization = view(message[http::field::authorization]),
                      .if_match = view(message[http::field::if_match]),
                      .ambiguous = ambiguous(*parser_)};
  request_ = ApiRequest{};
  if (const HttpError* error = http_map_head(head, request_)) return error;
  const std::string_view expected = view(message[http::field::expect]);
  const bool known =
      expected.size() == 12 && ::strncasecmp(expected.data(), "100-continue", 12) == 0;
  return expected.empty() || known ? nullptr : &kHttpExpectationFailed;
}

void Connection::on_head() {
  keep_alive_ = parser_->keep_alive();
  std::int64_t retry_after_s = 0;
  if (const HttpError* error = check_head(retry_after_s)) return refuse(*error, retry_after_s);
  const bool wants_to_be_asked = parser_->get().count(http::field::expect) > 0 &&
                                 parser_->get().version() >= 11 && !parser_->is_done();
  if (!wants_to_be_asked) return read_body();
  asio::async_write(stream_, asio::buffer(kContinue.data(), kContinue.size()),
                    then([](Connection& c, const error_code& ec, std::size_t) {
                      ec ? c.close() : c.read_body();
                    }));
}

void Connection::read_body() {
  if (parser_->is_done()) return submit();
  http::async_read(stream_, buffer_, *parser_,
                   then([](Connection& c, const error_code& ec, std::size_t) {
                     ec ? c.on_parse_error(ec) : c.submit();
                   }));
}

void Connection::on_parse_error(const error_code& ec) {
  if (ec == http::error::end_of_stream) return farewell();
  if (ec == http::error::body_limit) return refuse(kHttpBodyTooLarge);
  if (ec == http::error::header_limit || ec == http::error::buffer_overflow) {
    const auto data = buffer_.data();
    const bool in_first_line =
        parser_->get().target().empty() && ::memchr(data.data(), '\n', data.size()) == nullptr;
    return refuse(in_first_line ? kHttpUriTooLong : kHttpHeadersTooLarge);
  }
  const bool malformed = ec.category() == http::make_error_code(http::error::bad_method).category();
  if (malformed && ec != http::error::partial_message) return refuse(kHttpBadRequest);
  close();  // gone, or out of time
}

void Connection::submit() {
  request_.client.set_truncated(client_.text.view());
  request_.body = parser_->get().body();
  request_id_ = host_.submit(request_, shared_from_this());
  request_.authorization.wipe();
  request_.body = {};
  if (request_id_ == 0) return refuse(kHttpUnavailable);
  await_answer();
}

void Connection::await_answer() {
  stage_ = Stage::Answer;
  answer_timer_.expires_after(host_.limits.answer);
  answer_timer_.async_wait(
      then([id = request_id_](Connection& c, const error_code& ec, std::size_t) {
        if (ec || c.request_id_ != id) return;
        c.request_id_ = 0;
        c.host_.abandon(id);
        c.refuse(kHttpTimeout);
      }));
}

void Connection::answer(const ApiResponse& response) {
  if (stage_ != Stage::Answer) return;
  request_id_ = 0;
  answer_timer_.cancel();
  if (response.auth_failed) {
    const std::int64_t block_s = host_.clients.auth_failed(client_.key, steady_seconds());
    if (block_s > 0) {
      log_msg(LogLevel::Warn,
              "client %s: %u failed authentications within %lld s, refused for %lld s",
              client_.text.c_str(), kAuthFailuresAllowed, static_cast<long long>(kAuthWindow),
              static_cast<long long>(block_s));
    }
  }
  send({.status = response.status,
        .body = response.body,
        .etag = response.etag.view(),
        .signature = response.signature.view(),
        .now = ::time(nullptr),
        .keep_alive = keep_alive_});
}

void Connection::refuse(const HttpError& error, std::int64_t retry_after_s) {
  keep_alive_ = false;  // what follows on this connection may not be a request
  const std::string body = http_error_body(error);
  send({.status = error.status,
        .body = body,
        .retry_after_s = retry_after_s,
        .now = ::time(nullptr)});
}

void Connection::send(const HttpReply& reply) {
  stage_ = Stage::Reply;
  out_ = http_reply_text(reply);
  if (parser_->get().method() == http::verb::head) out_.resize(out_.size() - reply.body.size());
  tcp().expires_after(host_.limits.reply);
  asio::async_write(stream_, asio::buffer(out_),
                    then([](Connection& c, const error_code& ec, std::size_t) {
                      if (ec) return c.close();
                      std::string().swap(c.out_);  // an idle connection holds little memory
                      c.keep_alive_ ? c.await_request(false) : c.farewell();
                    }));
}

// Closing at once while the client is still sending would make its kernel throw away the reply it
// has not read yet, so the rest is read and dropped for a moment.
void Connection::farewell() {
  stage_ = Stage::Farewell;
  tcp().expires_after(host_.limits.farewell);
  stream_.async_shutdown(then([](Connection& c, const error_code&, std::size_t) {
    error_code ignored;  // the client may be gone, which ends the draining at once
    (void)c.tcp().socket().shutdown(asio::ip::tcp::socket::shutdown_send, ignored);
    c.drain(0);
  }));
}

void Connection::drain(std::size_t drained) {
  if (drained > kMaxDrained) return close();
  tcp().async_read_some(asio::buffer(dropped_),
                        then([drained](Connection& c, const error_code& ec, std::size_t n) {
                          ec ? c.close() : c.drain(drained + n);
                        }));
}

void Connection::close() {
  if (stage_ == Stage::Closed) return;
  stage_ = Stage::Closed;
  answer_timer_.cancel();
  if (request_id_ != 0) host_.abandon(request_id_);
  tcp().close();
  host_.closed(shared_from_this());
}

std::shared_ptr<Connection> connection_open(ConnectionHost& host, TcpSocket socket,
                                            std::shared_ptr<asio::ssl::context> tls,
                                            const ClientAddress& client) {
  auto connection = std::make_shared<Connection>(host, std::move(socket), std::move(tls), client);
  connection->start();
  return connection;
}

void connection_answer(Connection& connection, const ApiResponse& response) {
  connection.answer(response);
}

std::optional<steady_clock::time_point> connection_idle_since(const Connection& connection) {
  return connection.idle_since();
}

void connection_close(Connection& connection) { connection.close(); }
const ClientAddress& connection_client(const Connection& connection) { return connection.client(); }

std::int64_t steady_seconds() {
  return std::chrono::duration_cast<std::chrono::seconds>(steady_clock::now().time_since_epoch())
      .count();
}

}  // namespace orv
