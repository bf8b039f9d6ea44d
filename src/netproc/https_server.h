// The HTTPS side: the listening socket, the TLS settings, the connections and the requests that
// wait for the scheduler. All places taken, a new client gets that of a connection that is idle or
// still in its handshake after a while, first of all one of its own; without such a place one
// client waits here and the others in the kernel's backlog.
#ifndef ORV_NETPROC_HTTPS_SERVER_H_
#define ORV_NETPROC_HTTPS_SERVER_H_

#include <boost/asio/io_context.hpp>
#include <boost/asio/ip/tcp.hpp>
#include <boost/asio/steady_timer.hpp>
#include <map>
#include <memory>
#include <optional>
#include <set>
#include <span>

#include "common/scoped_fd.h"
#include "netproc/connection.h"

namespace orv {

class HttpsServer {
 public:
  // Sends a request to the scheduler under the id; false when it is not keeping up.
  using SendRequest = std::function<bool(std::uint32_t id, const ApiRequest& request)>;

  // `on_empty` is called when the last connection has closed.
  HttpsServer(boost::asio::io_context& loop, const HttpsLimits& limits, SendRequest send_request,
              std::function<void()> on_empty);

  // Takes the listening socket, an empty owner when there is none. Nobody is accepted before the
  // first configure(). -1 with the reason when it cannot be used.
  [[nodiscard]] int listen_on(ScopedFd listener, std::span<char> err);

  // Takes certificate, key and number of clients for the connections to come; the first time,
  // begins to accept. The caller releases `config`. -1 with the reason, everything as it was.
  [[nodiscard]] int configure(const IpcApiConfig& config, std::span<char> err);

  // Passes the scheduler's answer on. An answer that nobody waits for any more is dropped.
  void answer(std::uint32_t id, const ApiResponse& response);

  // Closes the listening socket and all connections. For good; the loop then runs out of work.
  void stop();

 private:
  // A client comes in by these, in this order; every way ends in waiting for the next one, in a
  // pause, or in waiting for a place.
  void await_clients();
  void on_clients();
  void welcome(TcpSocket socket);
  bool seat(TcpSocket& socket, const ClientAddress& client);
  bool make_room(const Ipv6Bytes* client);
  void seat_waiting_client();
  void pause_accepting();
  std::uint32_t submit(const ApiRequest& request, const std::shared_ptr<Connection>& connection);

  boost::asio::io_context& loop_;
  const SendRequest send_request_;
  ConnectionHost host_;  // what the connections use of the server
  boost::asio::ip::tcp::acceptor acceptor_;
  boost::asio::steady_timer retry_timer_;           // while accepting pauses
  std::shared_ptr<boost::asio::ssl::context> tls_;  // of connections to come; none: not configured
  std::set<std::shared_ptr<Connection>> connections_;
  std::map<std::uint32_t, std::shared_ptr<Connection>> waiting_;  // by the id of their request
  std::uint32_t last_id_ = 0;                                     // of a request; 0 is never given
  bool accepting_ = false;                   // a wait on the listening socket is under way
  std::optional<TcpSocket> waiting_client_;  // accepted, and without a place so far
  ClientAddress waiting_address_;
};

}  // namespace orv

#endif  // ORV_NETPROC_HTTPS_SERVER_H_
