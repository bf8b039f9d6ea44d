#include "client/resolve.h"

#include <netdb.h>
#include <sys/socket.h>

#include <boost/asio/ip/address.hpp>
#include <boost/asio/post.hpp>
#include <boost/asio/redirect_error.hpp>
#include <boost/asio/steady_timer.hpp>
#include <boost/asio/this_coro.hpp>
#include <boost/asio/use_awaitable.hpp>
#include <cstring>
#include <memory>
#include <mutex>
#include <system_error>
#include <thread>
#include <utility>

namespace orv {
namespace {

namespace asio = boost::asio;
using asio::ip::tcp;
using boost::system::error_code;

// One resolution, shared by the coroutine that waits and the thread that asks. The thread may
// outlive the other by as long as the system's resolver takes, and then finds itself abandoned.
struct Lookup {
  std::mutex mutex;
  asio::steady_timer* waiting = nullptr;  // cancelled when the answer is here; null: abandoned
  asio::any_io_executor executor;         // used by the thread only while somebody waits
  std::vector<tcp::endpoint> found;
  int error = 0;  // of getaddrinfo(3)
};

// Abandons the lookup when the coroutine goes, whichever way.
class Waiter {
 public:
  Waiter(std::shared_ptr<Lookup> lookup, asio::steady_timer& timer) : lookup_(std::move(lookup)) {
    lookup_->waiting = &timer;
    lookup_->executor = timer.get_executor();
  }
  Waiter(const Waiter&) = delete;
  Waiter& operator=(const Waiter&) = delete;
  ~Waiter() {
    const std::lock_guard lock(lookup_->mutex);
    lookup_->waiting = nullptr;
    lookup_->executor = {};
  }

 private:
  std::shared_ptr<Lookup> lookup_;
};

void look_up(const std::shared_ptr<Lookup>& lookup, const ServerAddress& address) {
  addrinfo hints{};
  hints.ai_socktype = SOCK_STREAM;
  hints.ai_flags = AI_ADDRCONFIG;  // no IPv6 addresses where there is no IPv6
  addrinfo* list = nullptr;
  const int error = ::getaddrinfo(address.host.c_str(), nullptr, &hints, &list);
  const std::unique_ptr<addrinfo, decltype(&::freeaddrinfo)> owner(list, ::freeaddrinfo);
  std::vector<tcp::endpoint> found;
  for (const addrinfo* at = list; at != nullptr; at = at->ai_next) {
    tcp::endpoint endpoint;
    if (at->ai_addrlen > endpoint.capacity()) continue;  // neither IPv4 nor IPv6
    std::memcpy(endpoint.data(), at->ai_addr, at->ai_addrlen);
    endpoint.resize(at->ai_addrlen);
    endpoint.port(address.port);
    found.push_back(endpoint);
  }
  const std::lock_guard lock(lookup->mutex);
  if (lookup->waiting == nullptr) return;
  lookup->found = std::move(found);
  lookup->error = error;
  // The waiting coroutine holds the executor's context, so it is there as long as the lock is held.
  asio::post(lookup->executor, [lookup] {
    if (lookup->waiting != nullptr) lookup->waiting->cancel();
  });
}

std::string start_thread(const std::shared_ptr<Lookup>& lookup, const ServerAddress& address) {
  try {
    // getaddrinfo(3) knows no time limit and cannot be called off, so nobody waits for this thread.
    std::thread(look_up, lookup, address).detach();
    return {};
  } catch (const std::system_error& failed) {
    return "cannot start a thread to resolve '" + address.host + "': " + failed.code().message();
  }
}

}  // namespace

asio::awaitable<std::vector<tcp::endpoint>> resolve_host(
    ServerAddress address, std::chrono::steady_clock::time_point deadline, std::string& error) {
  error_code not_figures;
  const asio::ip::address figures = asio::ip::make_address(address.host, not_figures);
  // Needs no resolver, and so no thread that could hang in one.
  if (!not_figures) co_return std::vector<tcp::endpoint>{tcp::endpoint(figures, address.port)};

  const auto lookup = std::make_shared<Lookup>();
  asio::steady_timer timer(co_await asio::this_coro::executor, deadline);
  const Waiter waiter(lookup, timer);
  error = start_thread(lookup, address);
  if (!error.empty()) co_return std::vector<tcp::endpoint>{};
  // Ends by the thread's answer, which cancels the timer, or at the deadline.
  error_code ended;
  co_await timer.async_wait(asio::redirect_error(asio::use_awaitable, ended));

  const std::lock_guard lock(lookup->mutex);
  // Locked: after a deadline the thread may be writing its answer now.
  if (lookup->found.empty()) {
    error = "cannot resolve '" + address.host +
            "': " + (lookup->error != 0 ? ::gai_strerror(lookup->error) : "timed out");
  }
  co_return std::move(lookup->found);
}

}  // namespace orv
