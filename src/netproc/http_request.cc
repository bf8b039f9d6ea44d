#include "netproc/http_request.h"

#include <strings.h>

namespace orv {
namespace {

namespace http = boost::beast::http;

std::string_view view(boost::beast::string_view text) { return {text.data(), text.size()}; }

// A second Authorization or If-Match, a wrong number of Hosts, or a body of unknown length: two
// readers could take the request for two different ones.
bool ambiguous(const HttpParser& parser) {
  const auto& head = parser.get();
  const auto repeated = [&](http::field field) { return head.count(field) > 1; };
  return repeated(http::field::authorization) || repeated(http::field::if_match) ||
         repeated(http::field::host) ||
         (head.version() >= 11 && head.count(http::field::host) == 0) ||
         (head.count(http::field::transfer_encoding) > 0 && !parser.chunked());
}

bool same_word(std::string_view a, std::string_view b) {
  return a.size() == b.size() && ::strncasecmp(a.data(), b.data(), a.size()) == 0;
}

// A body in another coding than chunks alone would have to be decoded (RFC 9112, section 6.1).
bool coded(const HttpParser& parser) {
  return parser.chunked() &&
         !same_word(view(parser.get()[http::field::transfer_encoding]), "chunked");
}

}  // namespace

void http_set_limits(HttpParser& parser) {
  parser.header_limit(kMaxHttpHead);
  parser.body_limit(kIpcMaxRequestBody);
}

const HttpError* http_check_head(const HttpParser& parser, ApiRequest& out) {
  const auto& message = parser.get();
  const HttpHead head{.method = view(message.method_string()),
                      .target = view(message.target()),
                      .authorization = view(message[http::field::authorization]),
                      .if_match = view(message[http::field::if_match]),
                      .ambiguous = ambiguous(parser)};
  if (const HttpError* error = http_map_head(head, out)) return error;
  if (coded(parser)) return &kHttpNotImplemented;
  const std::string_view expected = view(message[http::field::expect]);
  const bool can_be_met = expected.empty() || same_word(expected, "100-continue");
  return can_be_met ? nullptr : &kHttpExpectationFailed;
}

bool http_expects_continue(const HttpParser& parser) {
  const auto& message = parser.get();
  return message.count(http::field::expect) > 0 && message.version() >= 11 && !parser.is_done();
}

const HttpError* http_parse_error(const boost::system::error_code& ec, const HttpParser& parser,
                                  std::string_view unread) {
  if (ec == http::error::body_limit) return &kHttpBodyTooLarge;
  if (ec == http::error::header_limit || ec == http::error::buffer_overflow) {
    // The parser takes a line only when it is whole: it was the first one that did not fit.
    const bool in_first_line =
        parser.get().target().empty() && unread.find('\n') == std::string_view::npos;
    return in_first_line ? &kHttpUriTooLong : &kHttpHeadersTooLarge;
  }
  // partial_message: the client went away in the middle.
  const bool malformed = ec.category() == http::make_error_code(http::error::bad_method).category();
  return malformed && ec != http::error::partial_message ? &kHttpBadRequest : nullptr;
}

}  // namespace orv
