// One client of the API: TLS handshake, requests one after the other, replies, farewell. Every
// phase has an absolute deadline, so that a client that feeds its bytes one by one gains nothing.
// What is malformed or too large is answered here and never reaches the scheduler.
#ifndef ORV_NETPROC_CONNECTION_H_
#define ORV_NETPROC_CONNECTION_H_

#include <boost/asio/io_context.hpp>
#include <boost/asio/ip/tcp.hpp>
#include <boost/asio/ssl/context.hpp>
#include <chrono>
#include <functional>
#include <memory>
#include <optional>

#include "net/ipc.h"
#include "netproc/client_limits.h"

namespace orv {

struct HttpsLimits {
  std::chrono::milliseconds handshake{10'000};
  std::chrono::milliseconds request{
      20'000};  // from its first byte, the first one: from the handshake
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
  // Hands a request to the scheduler. Its id, under which connection_answer() follows unless
  // `abandon` is called first; 0 when the scheduler is not keeping up.
  std::function<std::uint32_t(const ApiRequest&, const std::shared_ptr<Connection>&)> submit;
  std::function<void(std::uint32_t id)> abandon;
  std::function<void(const std::shared_ptr<Connection>&)> closed;  // once per connection
};

[[nodiscard]] std::shared_ptr<Connection> connection_open(
    ConnectionHost& host, TcpSocket socket, std::shared_ptr<boost::asio::ssl::context> tls,
    const ClientAddress& client);

// Sends the scheduler's answer to the request that is waiting for it.
void connection_answer(Connection& connection, const ApiResponse& response);

// Since when the connection has been waiting for a further request; nothing when it is at work.
[[nodiscard]] std::optional<std::chrono::steady_clock::time_point> connection_idle_since(
    const Connection& connection);

void connection_close(Connection& connection);
[[nodiscard]] const ClientAddress& connection_client(const Connection& connection);

// Seconds of the steady clock that ClientLimits counts by.
[[nodiscard]] std::int64_t steady_seconds();

}  // namespace orv

#endif  // ORV_NETPROC_CONNECTION_H_
