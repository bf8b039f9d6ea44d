// Host names to addresses, without blocking the thread that asks.
#ifndef ORV_CLIENT_RESOLVE_H_
#define ORV_CLIENT_RESOLVE_H_

#include <boost/asio/awaitable.hpp>
#include <boost/asio/ip/tcp.hpp>
#include <chrono>
#include <string>
#include <vector>

#include "client/server_list.h"

namespace orv {

// The addresses to try, in the order to try them (RFC 6724, as getaddrinfo(3) sorts them). An
// address in figures is taken as it is. A name is resolved on a thread of its own, which is left to
// itself at the deadline: the system's resolver cannot be interrupted, and a name server that does
// not answer must not hold up other servers. Empty after one line in `error`.
[[nodiscard]] boost::asio::awaitable<std::vector<boost::asio::ip::tcp::endpoint>> resolve_host(
    ServerAddress address, std::chrono::steady_clock::time_point deadline, std::string& error);

}  // namespace orv

#endif  // ORV_CLIENT_RESOLVE_H_
