// The console: the local page, what is known of the servers, and the way of the page's requests to
// them, put together.
#ifndef ORV_CONSOLE_CONSOLE_H_
#define ORV_CONSOLE_CONSOLE_H_

#include <boost/asio/io_context.hpp>
#include <span>
#include <string>
#include <vector>

#include "client/server_list.h"
#include "console/guard.h"
#include "console/http_server.h"
#include "console/options.h"
#include "console/pollers.h"

namespace orv {

// One for the program. Everything happens on the thread that runs `loop`, and so without locks.
class Console {
 public:
  // The loop outlives the console and does not run any more when it goes. Nothing is opened yet.
  Console(boost::asio::io_context& loop, const ConsoleOptions& options,
          std::vector<Server> servers);

  // Listens on the address of the options and draws the keys. 0; -1 with the reason.
  [[nodiscard]] int listen(std::span<char> err);
  // The guard of the address in use. Needs listen().
  [[nodiscard]] Guard& guard() { return *guard_; }

  // Begins to serve and to poll. Needs listen(); the loop then does the rest.
  void start();
  // Closes the socket and the browsers' connections. Pollers end with the loop.
  void stop();

 private:
  // A request that the guard let pass: a file of the page, the list of servers, or a server's.
  void handle(const LocalRequest& request, const LocalRespond& respond);
  void pass_on(const LocalRequest& request, const LocalRespond& respond);
  // GET /api/servers: an array of what known_server_json() says of each, in the list's order.
  [[nodiscard]] std::string servers_json() const;
  // GET /api/events: one event for each server whose version the browser has not seen.
  [[nodiscard]] NextEvent open_stream();

  const ConsoleOptions options_;
  Pollers pollers_;
  LocalServer server_;
  std::unique_ptr<Guard> guard_;  // null before listen()
};

}  // namespace orv

#endif  // ORV_CONSOLE_CONSOLE_H_
