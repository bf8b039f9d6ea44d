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

class Console {
 public:
  Console(boost::asio::io_context& loop, const ConsoleOptions& options,
          std::vector<Server> servers);

  // Listens. 0; -1 with the reason.
  [[nodiscard]] int listen(std::span<char> err);
  // The guard of the address in use. Needs listen().
  [[nodiscard]] Guard& guard() { return *guard_; }

  // Begins to serve and to poll.
  void start();
  void stop();

 private:
  void handle(const LocalRequest& request, const LocalRespond& respond);
  void pass_on(const LocalRequest& request, const LocalRespond& respond);
  [[nodiscard]] std::string servers_json() const;
  [[nodiscard]] NextEvent open_stream();

  const ConsoleOptions options_;
  Pollers pollers_;
  LocalServer server_;
  std::unique_ptr<Guard> guard_;
};

}  // namespace orv

#endif  // ORV_CONSOLE_CONSOLE_H_
