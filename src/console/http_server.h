// The local HTTP side: one listening socket on loopback, connections that keep alive, one request
// at a time on each, and streams of server-sent events. What is malformed or too large is answered
// here; all else goes to the handler after the guard has let it pass.
#ifndef ORV_CONSOLE_HTTP_SERVER_H_
#define ORV_CONSOLE_HTTP_SERVER_H_

#include <boost/asio/io_context.hpp>
#include <boost/asio/ip/tcp.hpp>
#include <boost/asio/steady_timer.hpp>
#include <chrono>
#include <functional>
#include <memory>
#include <optional>
#include <set>
#include <span>
#include <string>

#include "console/guard.h"
#include "console/local_http.h"

namespace orv {

// Defaults for a person's browser; tests shorten them.
struct LocalHttpLimits {
  std::chrono::milliseconds request{20'000};     // from its first byte to its last
  std::chrono::milliseconds idle{120'000};       // between two requests
  std::chrono::milliseconds reply{60'000};       // until the browser has taken a reply or an event
  std::chrono::milliseconds keep_alive{15'000};  // a comment on a stream that has nothing to say
  std::size_t connections = 128;                 // at once; browsers open six for each page
};

// Sends the reply to one request; call it once, now or later. The connection may be gone by then.
using LocalRespond = std::function<void(LocalReply reply)>;

// The next event of one stream, framing included; empty when it has seen everything. It is asked
// again after each wake_streams().
using NextEvent = std::function<std::string()>;

// What the server asks for answers. Called on the loop's thread, for requests that the guard let
// pass.
struct LocalHandler {
  std::function<void(const LocalRequest& request, LocalRespond respond)> handle;
  std::function<NextEvent()> open_stream;  // of GET /api/events
};

class LocalConnection;

// The connections live until they end or stop() is called. The loop outlives the server.
class LocalServer {
 public:
  LocalServer(boost::asio::io_context& loop, const LocalHttpLimits& limits, LocalHandler handler);

  // Binds and listens. 0 with the port in use, which is another than `port` when that is 0; -1 with
  // the reason.
  [[nodiscard]] int listen(const std::string& address, std::uint16_t& port, std::span<char> err);

  // Begins to accept. `guard` outlives the server.
  void start(Guard& guard);

  // Lets every stream send what its NextEvent has now.
  void wake_streams();

  // Closes the socket and all connections.
  void stop();

 private:
  friend class LocalConnection;
  using TcpSocket = boost::asio::basic_stream_socket<boost::asio::ip::tcp,
                                                     boost::asio::io_context::executor_type>;
  void accept();
  void pause_accepting();
  // Takes a connection in, if need be in the place of one that never signed in.
  void welcome(TcpSocket socket);
  // Called by the connection, once, when it is closed.
  void closed(const std::shared_ptr<LocalConnection>& connection);

  boost::asio::io_context& loop_;
  const LocalHttpLimits limits_;
  const LocalHandler handler_;
  boost::asio::ip::tcp::acceptor acceptor_;
  boost::asio::steady_timer retry_timer_;  // after an accept that failed
  Guard* guard_ = nullptr;                 // set by start()
  std::set<std::shared_ptr<LocalConnection>> connections_;
};

}  // namespace orv

#endif  // ORV_CONSOLE_HTTP_SERVER_H_
