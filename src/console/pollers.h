// One poller for each server of the list, all on the thread of one event loop, and the way of the
// page's own requests to the servers. A server that cannot be asked (a token file that is too open,
// no answer, another certificate) harms no other.
#ifndef ORV_CONSOLE_POLLERS_H_
#define ORV_CONSOLE_POLLERS_H_

#include <boost/asio/io_context.hpp>
#include <functional>
#include <memory>
#include <string_view>
#include <vector>

#include "client/connection.h"
#include "client/server_list.h"
#include "console/known_server.h"

namespace orv {

class Poller;

// Owns the pollers. An index is the server's place in the list and stays the same.
class Pollers {
 public:
  // `changed` is called when what is known of a server has changed in more than times. The pollers
  // end with the loop, which must not run any more when they go.
  Pollers(boost::asio::io_context& loop, std::vector<Server> servers,
          std::function<void()> changed);
  ~Pollers();

  // Begins to ask. Called once.
  void start();

  // The servers in the list's order.
  [[nodiscard]] std::size_t size() const { return pollers_.size(); }
  [[nodiscard]] const KnownServer& known(std::size_t index) const;
  // size() when there is no server of that name.
  [[nodiscard]] std::size_t find(std::string_view name) const;

  // Sends a request of the page and hands the reply to `done`, within 10 seconds, from the loop.
  // After a change the server's poller looks at once.
  void pass(std::size_t index, ClientRequest request, std::function<void(ClientReply)> done);

 private:
  boost::asio::io_context& loop_;
  const std::function<void()> changed_;
  std::vector<std::shared_ptr<Poller>> pollers_;
};

}  // namespace orv

#endif  // ORV_CONSOLE_POLLERS_H_
