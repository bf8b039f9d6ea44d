#include "netproc/connection.h"

#include <time.h>

#include <boost/asio/write.hpp>
#include <boost/beast/http/read.hpp>
#include <utility>

#include "common/log.h"

namespace orv {
namespace {

namespace asio = boost::asio;
namespace http = boost::beast::http;
using boost::system::error_code;

constexpr std::size_t kReadChunk = 4096;                   // bytes
constexpr std::size_t kMaxDrained = std::size_t{1} << 20;  // bytes read and dropped at the end
constexpr std::string_view kContinue = "HTTP/1.1 100 Continue\r\n\r\n";

}  // namespace

Connection::Connection(ConnectionHost& host, TcpSocket socket,
                       std::shared_ptr<asio::ssl::context> tls, const ClientAddress& client)
    : host_(host),
      client_(client),
      tls_(std::move(tls)),
      stream_(std::move(socket), *tls_),
      timer_(tcp().get_executor()),
      buffer_(kMaxHttpBuffered) {
  // Releasing OpenSSL's buffers after each record means zeroing 16 KiB for each request: a tenth of
  // what this process does for it. They go with the connection.
  SSL_clear_mode(stream_.native_handle(), SSL_MODE_RELEASE_BUFFERS);
}

// A completion handler that keeps the connection alive and does nothing once it is closed.
template <typename Next>
auto Connection::then(Next next) {
  return [self = shared_from_this(), next](const error_code& ec, std::size_t n = 0) {
    if (self->stage_ != Stage::Closed) next(*self, ec, n);
  };
}

// Sets the deadline of the stage. A stage is entered several times per request and hardly ever
// overrun, so the timer is left as it is unless it would fire too late: when it fires early, it
// goes on to the deadline of then.
void Connection::limit(std::chrono::milliseconds time) {
  deadline_ = Clock::now() + time;
  if (!timer_runs_ || deadline_ < timer_.expiry()) arm_timer();
}

void Connection::arm_timer() {
  timer_runs_ = true;
  timer_.expires_at(deadline_);  // ends a wait under way, whose handler then finds an error
  timer_.async_wait(then([](Connection& c, const error_code& ec, std::size_t) {
    if (ec) return;
    Clock::now() < c.deadline_ ? c.arm_timer() : c.on_deadline();
  }));
}

void Connection::on_deadline() {
  timer_runs_ = false;
  if (stage_ != Stage::Answer) return close();
  host_.abandon(std::exchange(request_id_, 0));
  refuse(kHttpTimeout);
}

void Connection::start() {
  limit(host_.limits.handshake);
  stream_.async_handshake(asio::ssl::stream_base::server,
                          then([](Connection& c, const error_code& ec, std::size_t) {
                            if (ec) return c.close();
                            c.limit(c.host_.limits.request);
                            c.await_request(true);
                          }));
}

void Connection::await_request(bool first) {
  parser_.emplace();
  http_set_limits(*parser_);
  skip_blank_lines();
  // Nothing of the last request stays in a buffer that waits for the next one.
  if (buffer_.size() == 0) buffer_.shrink_to_fit();
  if (buffer_.size() > 0) {  // the next request came along with the last one
    limit(host_.limits.request);
    return read_head();
  }
  // The first request is still within the deadline that start() has set.
  if (!first) {
    stage_ = Stage::Idle;
    waiting_since_ = Clock::now();
    limit(host_.limits.idle);
  }
  read_more();
}

void Connection::read_more() {
  stream_.async_read_some(buffer_.prepare(kReadChunk),
                          then([](Connection& c, const error_code& ec, std::size_t n) {
                            if (ec) return c.farewell();
                            c.buffer_.commit(n);
                            if (c.stage_ == Stage::Idle) {
                              c.stage_ = Stage::Request;
                              c.limit(c.host_.limits.request);
                            }
                            c.skip_blank_lines();
                            c.buffer_.size() > 0 ? c.read_head() : c.read_more();
                          }));
}

// An empty line before the request line is not part of it (RFC 9112, section 2.2). Half of one is
// left for the parser, which refuses it: who sends it byte by byte gets a 400.
void Connection::skip_blank_lines() {
  const auto starts_blank = [this] {
    const auto data = buffer_.data();
    return std::string_view(static_cast<const char*>(data.data()), data.size()).starts_with("\r\n");
  };
  while (starts_blank()) buffer_.consume(2);
}

void Connection::read_head() {
  stage_ = Stage::Request;
  http::async_read_header(stream_, buffer_, *parser_,
                          then([](Connection& c, const error_code& ec, std::size_t) {
                            ec ? c.on_parse_error(ec) : c.on_head();
                          }));
}

// A blocked client gets its 429 before anything else of its request is checked.
const HttpError* Connection::check_head(std::int64_t& retry_after_s) {
  retry_after_s = host_.clients.blocked_for(client_.key, steady_seconds());
  if (retry_after_s > 0) return &kHttpTooManyFailures;
  return http_check_head(*parser_, request_);
}

void Connection::on_head() {
  keep_alive_ = parser_->keep_alive();
  std::int64_t retry_after_s = 0;
  if (const HttpError* error = check_head(retry_after_s)) return refuse(*error, retry_after_s);
  if (!http_expects_continue(*parser_)) return read_body();
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
  if (ec == http::error::end_of_stream) return farewell();  // the client has asked all it wanted
  const auto unread = buffer_.data();
  const HttpError* error =
      http_parse_error(ec, *parser_, {static_cast<const char*>(unread.data()), unread.size()});
  error != nullptr ? refuse(*error) : close();  // gone, or out of time
}

void Connection::submit() {
  request_.client.set_truncated(client_.text.view());
  request_.body = parser_->get().body();
  request_id_ = host_.submit(request_, shared_from_this());
  // What was handed over is not kept: the secret goes now, not when the answer is there.
  request_.authorization.wipe();
  request_.body = {};
  if (request_id_ == 0) return refuse(kHttpUnavailable);
  stage_ = Stage::Answer;
  limit(host_.limits.answer);
}

void Connection::answer(const ApiResponse& response) {
  if (stage_ != Stage::Answer) return;
  request_id_ = 0;
  if (response.auth_failed) count_failed_authentication();
  send({.status = response.status,
        .body = response.body,
        .etag = response.etag.view(),
        .signature = response.signature.view(),
        .now = ::time(nullptr),
        .keep_alive = keep_alive_});
}

void Connection::count_failed_authentication() {
  const std::int64_t block_s = host_.clients.auth_failed(client_.key, steady_seconds());
  if (block_s == 0) return;
  log_msg(LogLevel::Warn, "client %s: %u failed authentications within %lld s, refused for %lld s",
          client_.text.c_str(), kAuthFailuresAllowed, static_cast<long long>(kAuthWindow),
          static_cast<long long>(block_s));
}

void Connection::refuse(const HttpError& error, std::int64_t retry_after_s) {
  keep_alive_ = false;  // what follows on this connection may not be a request
  request_.authorization.wipe();
  const std::string body = http_error_body(error);
  send({.status = error.status,
        .body = body,
        .retry_after_s = retry_after_s,
        .now = ::time(nullptr)});
}

void Connection::send(const HttpReply& reply) {
  stage_ = Stage::Reply;
  out_ = http_reply_text(reply);
  // The reply to HEAD has the length of a body and none.
  if (parser_->get().method() == http::verb::head) out_.resize(out_.size() - reply.body.size());
  limit(host_.limits.reply);
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
  // Nothing of what was read is needed any more, and some of it was secret.
  parser_.reset();
  buffer_.clear();
  buffer_.shrink_to_fit();
  limit(host_.limits.farewell);
  stream_.async_shutdown(then([](Connection& c, const error_code&, std::size_t) {
    error_code ignored;  // the client may be gone, which ends the draining at once
    (void)c.tcp().shutdown(asio::ip::tcp::socket::shutdown_send, ignored);
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
  request_.authorization.wipe();
  timer_.cancel();
  if (request_id_ != 0) host_.abandon(request_id_);
  error_code ignored;  // closing is all that is left to do
  (void)tcp().close(ignored);
  host_.closed(shared_from_this());
}

std::optional<Connection::Clock::time_point> Connection::spare_since(Clock::time_point now) const {
  const bool slow =
      stage_ == Stage::Handshake && now - waiting_since_ >= host_.limits.crowded_handshake;
  if (stage_ != Stage::Idle && !slow) return std::nullopt;
  return waiting_since_;
}

std::int64_t steady_seconds() {
  return std::chrono::duration_cast<std::chrono::seconds>(
             std::chrono::steady_clock::now().time_since_epoch())
      .count();
}

}  // namespace orv
