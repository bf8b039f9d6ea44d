// Reading a request off a connection's bytes: the parser with its limits, and what its findings
// mean. No input and output here, so that any bytes can be tried on it.
#ifndef ORV_NETPROC_HTTP_REQUEST_H_
#define ORV_NETPROC_HTTP_REQUEST_H_

#include <boost/beast/http/parser.hpp>
#include <boost/beast/http/string_body.hpp>
#include <string_view>

#include "common/secret.h"
#include "netproc/http_message.h"

namespace orv {

// Requests carry bearer secrets: the memory they were read into is zeroed before it goes back.
using HttpBody =
    boost::beast::http::basic_string_body<char, std::char_traits<char>, WipingAllocator<char>>;
using HttpParser = boost::beast::http::request_parser<HttpBody, WipingAllocator<char>>;

// Bytes that may be read ahead of the parser.
inline constexpr std::size_t kMaxHttpBuffered = std::size_t{2} * kMaxHttpHead;

// Sets the limits of head and body. Needs a parser that has read nothing yet.
void http_set_limits(HttpParser& parser);

// Checks a head that was read whole, and fills method, path, query, authorization and If-Match of
// `out`. Null, or the error to answer.
[[nodiscard]] const HttpError* http_check_head(const HttpParser& parser, ApiRequest& out);

// Whether the client waits for a "100 Continue" before it sends the body.
[[nodiscard]] bool http_expects_continue(const HttpParser& parser);

// The error to answer when the parser stops with `ec`; null when there is nobody left to answer or
// the fault was not the request's. `unread` is what the parser has not taken.
[[nodiscard]] const HttpError* http_parse_error(const boost::system::error_code& ec,
                                                const HttpParser& parser, std::string_view unread);

}  // namespace orv

#endif  // ORV_NETPROC_HTTP_REQUEST_H_
