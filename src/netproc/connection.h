// One client of the API: TLS handshake, requests one after the other, replies, farewell. Every
// stage has an absolute deadline, so that a client that feeds its bytes one by one gains nothing.
// What is malformed or too large is answered here and never reaches the scheduler.
//
//   stage      waits for                             deadline   goes on to
//   Handshake  the TLS handshake, then a first byte  handshake  Request
//   Idle       the first byte of a further request   idle       Request
//   Request    a head, then its body                 request    Answer; Reply when it is refused
//   Answer     the scheduler                         answer     Reply; with a 504 when time is up
//   Reply      the client to take the reply          reply      Idle, or Request when one is there;
//                                                               Farewell after the last
//   Farewell   the client to close                   farewell   Closed
//   Closed     nothing; what still completes finds the stage and does nothing
//
// Where a request could begin, the end of the client's input leads to Farewell. A deadline that
// passes in any other stage than Answer, and a broken connection, lead to Closed.
#ifndef ORV_NETPROC_CONNECTION_H_
#define ORV_NETPROC_CONNECTION_H_

#include <array>
#include <boost/asio/io_context.hpp>
#include <boost/asio/ip/tcp.hpp>
#include <boost/asio/ssl/context.hpp>
#include <boost/asio/ssl/stream.hpp>
#include <boost/asio/steady_timer.hpp>
#include <boost/beast/core/flat_buffer.hpp>
#include <chrono>
#include <functional>
#include <memory>
#include <optional>
#include <string>

#include "common/secret.h"
#include "net/ipc.h"
#include "netproc/client_limits.h"
#include "netproc/http_request.h"

namespace orv {

struct HttpsLimits {
  std::chrono::milliseconds handshake{10'000};
  // After this much of it, a connection may have to give its place to a new client.
  std::chrono::milliseconds crowded_handshake{1'000};
  // From the request's first byte; for the first request, from the end of the handshake.
  std::chrono::milliseconds request{20'000};
  std::chrono::milliseconds answer{30'000};   // the scheduler's
  std::chrono::milliseconds reply{20'000};    // until the client has taken it
  std::chrono::milliseconds idle{30'000};     // between two requests
  std::chrono::milliseconds farewell{2'000};  // for reading what a client still sends at the end
};

using TcpSocket =
    boost::asio::basic_stream_socket<boost::asio::ip::tcp, boost::asio::io_context::executor_type>;

class Connection;

// What a connection needs of its server, which outlives the event loop's run.
struct ConnectionHost {
  HttpsLimits limits;
  ClientLimits clients;
  // Hands a request to the scheduler. Its id, under which Connection::answer() follows unless
  // `abandon` is called first; 0 when the scheduler is not keeping up.
  std::function<std::uint32_t(const ApiRequest&, const std::shared_ptr<Connection>&)> submit;
  std::function<void(std::uint32_t id)> abandon;
  std::function<void(const std::shared_ptr<Connection>&)> closed;  // once per connection
};

class Connection : public std::enable_shared_from_this<Connection> {
 public:
  using Clock = std::chrono::steady_clock;

  Connection(ConnectionHost& host, TcpSocket socket, std::shared_ptr<boost::asio::ssl::context> tls,
             const ClientAddress& client);

  // Begins with the handshake. Once, after construction: it needs the owner that exists only then.
  void start();

  // Sends the scheduler's answer to the request that is waiting for it. Dropped when none is.
  void answer(const ApiResponse& response);

  // Ends at once, in any stage; the host learns of it. A second call does nothing.
  void close();

  [[nodiscard]] const ClientAddress& client() const { return client_; }

  // Since when the connection could give its place to a new client: while it waits for a further
  // request, or once its handshake takes too long for a full house. nullopt while it is at work.
  [[nodiscard]] std::optional<Clock::time_point> spare_since(Clock::time_point now) const;

 private:
  enum class Stage { Handshake, Idle, Request, Answer, Reply, Farewell, Closed };

  using Executor = boost::asio::io_context::executor_type;
  using Timer = boost::asio::basic_waitable_timer<Clock, boost::asio::wait_traits<Clock>, Executor>;

  TcpSocket& tcp() { return stream_.next_layer(); }  // beneath TLS
  void limit(std::chrono::milliseconds time);
  void arm_timer();
  void on_deadline();
  template <typename Next>
  auto then(Next next);

  void await_request(bool first);
  void read_more();
  void skip_blank_lines();
  void read_head();
  void on_head();
  const HttpError* check_head(std::int64_t& retry_after_s);
  void read_body();
  void on_parse_error(const boost::system::error_code& ec);
  void submit();
  void count_failed_authentication();
  void refuse(const HttpError& error, std::int64_t retry_after_s = 0);
  void send(const HttpReply& reply);
  void farewell();
  void drain(std::size_t drained);

  ConnectionHost& host_;
  const ClientAddress client_;
  const std::shared_ptr<boost::asio::ssl::context> tls_;  // outlives a change of the certificate
  boost::asio::ssl::stream<TcpSocket> stream_;
  Timer timer_;
  Clock::time_point deadline_;  // of the stage
  bool timer_runs_ = false;
  boost::beast::basic_flat_buffer<WipingAllocator<char>> buffer_;  // received, not yet parsed
  std::optional<HttpParser> parser_;
  ApiRequest request_;
  std::string out_;                   // the reply under way
  std::array<char, 4096> dropped_{};  // what is read in the farewell
  std::uint32_t request_id_ = 0;      // 0: none is with the scheduler
  bool keep_alive_ = false;
  Stage stage_ = Stage::Handshake;
  Clock::time_point waiting_since_ = Clock::now();  // for the handshake, or the next request
};

// Seconds of the steady clock that ClientLimits counts by.
[[nodiscard]] std::int64_t steady_seconds();

}  // namespace orv

#endif  // ORV_NETPROC_CONNECTION_H_
