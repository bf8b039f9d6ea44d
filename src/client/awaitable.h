// boost::asio::awaitable, the coroutines of src/client/. To be included instead of Boost's header,
// which in version 1.74 relies on others for std::exchange.
#ifndef ORV_CLIENT_AWAITABLE_H_
#define ORV_CLIENT_AWAITABLE_H_

// clang-format off
#include <utility>
#include <boost/asio/awaitable.hpp>
// clang-format on

#endif  // ORV_CLIENT_AWAITABLE_H_
