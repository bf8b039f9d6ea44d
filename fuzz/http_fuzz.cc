// Any bytes as what a client of the API sends, in two pieces that the first byte divides. A request
// that is accepted makes a record, and the scheduler's decoder takes that record; whatever is
// refused has an error with a reply of its own.
#include <algorithm>
#include <boost/asio/buffer.hpp>
#include <memory>

#include "fuzz/targets.h"
#include "net/ipc.h"
#include "netproc/http_request.h"

namespace orv::fuzz {
namespace {

void hand_over(const HttpParser& parser, ApiRequest& request) {
  static const auto record = std::make_unique<IpcMessage>();
  request.client.set_truncated("192.0.2.1");
  request.body = parser.get().body();
  require(ipc_encode_api_request(*record, 1, request) == 0);
  IpcParsed parsed;
  require(ipc_parse({record->bytes.data(), record->length}, parsed) == 0);
  ApiRequest decoded;
  char err[256] = "";
  require(ipc_decode_api_request(parsed, decoded, err) == 0);
  require(decoded.path == request.path && decoded.body == request.body);
}

// As much of `text` as the parser takes; what is left. `ec` says why it stopped.
std::string_view feed(HttpParser& parser, std::string_view text, boost::system::error_code& ec) {
  while (!text.empty() && !ec && !parser.is_done()) {
    const std::size_t taken = parser.put(boost::asio::buffer(text.data(), text.size()), ec);
    text.remove_prefix(taken);
    if (taken == 0) break;
  }
  return text;
}

}  // namespace

void http(std::string_view input) {
  if (input.empty()) return;
  HttpParser parser;
  http_set_limits(parser);
  parser.eager(true);
  const std::size_t cut =
      std::min<std::size_t>(static_cast<unsigned char>(input[0]), input.size() - 1);
  boost::system::error_code ec;
  std::string_view rest = feed(parser, input.substr(1, cut), ec);
  const std::string_view more = input.substr(1 + cut);
  const std::string text = std::string(rest) + std::string(more);
  // As a connection does it: the parser is asked again only when there is more for it.
  if (!more.empty() && (!ec || ec == boost::beast::http::error::need_more)) {
    ec = {};
    rest = feed(parser, text, ec);
  }
  if (ec && ec != boost::beast::http::error::need_more) {
    const HttpError* error = http_parse_error(ec, parser, rest);
    if (error != nullptr) require(error->status >= 400 && error->status < 600);
    return;
  }
  if (!parser.is_header_done()) return;
  ApiRequest request;
  const HttpError* error = http_check_head(parser, request);
  if (error != nullptr) {
    const std::string reply =
        http_reply_text({.status = error->status, .body = http_error_body(*error)});
    require(reply.starts_with("HTTP/1.1 ") && reply.find("Status") == std::string::npos);
  } else if (parser.is_done()) {
    hand_over(parser, request);
  }
}

}  // namespace orv::fuzz
