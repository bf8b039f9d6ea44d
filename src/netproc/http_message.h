// What an HTTP request must look like to become a record for the scheduler, the errors that are
// answered without asking it, and the text of a reply. Pure.
#ifndef ORV_NETPROC_HTTP_MESSAGE_H_
#define ORV_NETPROC_HTTP_MESSAGE_H_

#include <cstdint>
#include <string>
#include <string_view>

#include "net/ipc.h"

namespace orv {

inline constexpr std::uint32_t kMaxHttpHead = 16384;  // bytes of request line and header fields

// An answer of the network process itself. It is not signed: only the scheduler knows the tokens.
// Statuses are those of RFC 9110 and RFC 6585.
struct HttpError {
  std::uint32_t status;
  const char* code;     // for programs
  const char* message;  // for people; both without characters that JSON escapes
};
extern const HttpError kHttpBadRequest;         // 400: also what could be read in two ways
extern const HttpError kHttpMethodNotAllowed;   // 405
extern const HttpError kHttpBodyTooLarge;       // 413
extern const HttpError kHttpUriTooLong;         // 414
extern const HttpError kHttpExpectationFailed;  // 417: an Expect other than 100-continue
extern const HttpError kHttpTooManyFailures;    // 429, with Retry-After: the address is blocked
extern const HttpError kHttpHeadersTooLarge;    // 431
extern const HttpError kHttpNotImplemented;     // 501: a transfer coding other than chunked
extern const HttpError kHttpUnavailable;        // 503: the scheduler does not take the request
extern const HttpError kHttpTimeout;            // 504: it took it and does not answer

// The parts of a request's head that matter. A header that is absent is empty.
struct HttpHead {
  std::string_view method;
  std::string_view target;  // as in the request line: path and query, or a whole URL
  std::string_view authorization;
  std::string_view if_match;
  bool ambiguous = false;  // a header that may stand once stands twice, or Host is missing
};

// Fills method, path, query, authorization and If-Match of `out` and returns null, or returns the
// error to answer; `out` may then be partly filled, the secret included.
[[nodiscard]] const HttpError* http_map_head(const HttpHead& head, ApiRequest& out);

struct HttpReply {
  std::uint32_t status = 0;
  std::string_view body{};  // JSON
  std::string_view etag{};
  std::string_view signature{};
  std::int64_t retry_after_s = 0;  // 0: no such header
  std::int64_t now = 0;            // Unix seconds
  bool keep_alive = false;
};
// Head and body as they go out.
[[nodiscard]] std::string http_reply_text(const HttpReply& reply);

// {"error":{"code":"...","message":"..."}}
[[nodiscard]] std::string http_error_body(const HttpError& error);

}  // namespace orv

#endif  // ORV_NETPROC_HTTP_MESSAGE_H_
